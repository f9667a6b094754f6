// The 36 requests of the daemon client as test cases: how to make each one with recognisable
// arguments, what the daemon should receive, and the exact log texts of each row.
#pragma once

#include <QJsonArray>
#include <QString>
#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "daemon/LMDaemonProxy.h"

namespace lumaro::test {

struct RequestOutcome {
    std::atomic<int> blockCalls{0};
    std::atomic<int> errorsInBlock{0};  // block calls that carried an error
    std::atomic<int64_t> lastErrorCode{0};
};

enum class Logging { Short, ShortEntryDisabled, NoEntry, Tagged };

struct RequestCase {
    int row;
    QString selector;  // as the daemon receives it (the plain form for file requests)
    Logging logging;
    QString entryText;  // untagged rows
    QString errorText;  // untagged rows: the format; tagged rows: the text after "%d "
    bool hasBlock;
    QJsonArray expectedArgs;  // as the reference daemon records them (tokens left out)
    std::function<void(LMDaemonProxy&, const std::shared_ptr<RequestOutcome>&)> call;
};

// File requests name this file; a URL the sandbox will not cover is given by deniedFileURL().
QUrl grantedFileURL();
QUrl deniedFileURL();

const std::vector<RequestCase>& requestCases();

}  // namespace lumaro::test
