// The requests of the daemon client as test cases, one per row of LMDaemonRequestCatalogue: how
// to make each with recognisable arguments, what the daemon should receive, and the log texts
// expected of it. The texts follow the catalogue's patterns; only the rows that differ from them
// are written out (RequestCases.cpp).
#pragma once

#include <QJsonArray>
#include <QString>
#include <atomic>
#include <functional>
#include <memory>

#include "daemon/LMDaemonProxy.h"

namespace lumaro::test {

struct RequestOutcome {
    std::atomic<bool> blockHanded{false};  // the request was given a completion block
    std::atomic<int> blockCalls{0};
    std::atomic<int> errorsInBlock{0};  // block calls that carried an error
    std::atomic<int64_t> lastErrorCode{0};
};

struct RequestCase {
    int row;
    QString selector;         // as the daemon receives it without a token
    bool tagged;              // " [INFO] ..." / " [ERROR] ..." lines under the log level
    QString entryText;        // untagged rows; empty when the row writes no entry line
    QString errorText;        // untagged rows: the format; tagged rows: the text before the code
    QJsonArray expectedArgs;  // as the reference daemon records them (tokens left out)
    std::function<void(LMDaemonProxy&, const std::shared_ptr<RequestOutcome>&)> call;
};

// File requests name this file; a URL the sandbox will not cover is given by deniedFileURL().
QUrl grantedFileURL();
QUrl deniedFileURL();

// The token-carrying form of a file request's selector, and where the token sits in its
// arguments: before the block, after the file's own arguments.
QString tokenSelector(const QString& selector);
int tokenIndex(const QString& selector);

// In the catalogue's order, one case for each of its rows.
const std::vector<RequestCase>& requestCases();

}  // namespace lumaro::test
