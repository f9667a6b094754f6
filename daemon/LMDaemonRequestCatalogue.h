// The daemon request catalogue: for each request of LMDaemonProxy, how it logs its entry and the
// text its error handler prints. Most rows follow one of two patterns (short untagged lines that
// ignore the log level, or tagged lines); the rows that differ are marked where they are listed.
#pragma once

#include <string>
#include <string_view>
#include <vector>

enum class LMRequestLogging {
    Short,               // untagged entry and error lines, written at any level
    ShortEntryDisabled,  // as Short, but the entry line goes to the disabled log handle
    NoEntry,             // nothing on entry; untagged error line
    Tagged,              // " [INFO] ..." entry below level 2, " [ERROR] ..." error below level 3
};

enum class LMTaggedErrorText { ProxyError, Error };  // "proxy error: %d" or "error: %d"

struct LMDaemonRequest {
    int row;
    std::string_view selector;
    LMRequestLogging logging;
    const char* entryText;  // Short rows only
    const char* errorText;  // untagged rows only
    LMTaggedErrorText taggedError;
    std::string_view tokenSelector;  // file requests: the variant that carries a token
    std::string method;              // "-[LMDaemonProxy <selector>]"
    std::string blockMethod;         // the error handler's name: method + "_block_invoke"
};

// Rows 1 to 36, in the class's declaration order.
const std::vector<LMDaemonRequest>& LMDaemonRequestCatalogue();
const LMDaemonRequest& LMDaemonRequestRow(int row);
