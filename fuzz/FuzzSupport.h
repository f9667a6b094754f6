// What every fuzz target needs before its first input: a quiet process (the inputs are meant to
// be refused, and a line for each would drown the fuzzer's own output) and an application object
// for the Qt and platform code that expects one.
#pragma once

#include <QCoreApplication>
#include <QtGlobal>

#include "platform/log/os_log.h"

namespace lumaro::fuzz {

inline void ignoreMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

// Silences the platform log and Qt's warnings and makes the QCoreApplication. Call it once, from
// LLVMFuzzerInitialize.
inline void setUpProcess() {
    platform::log::setEnabledTypes(0);
    qInstallMessageHandler(ignoreMessage);
    static int argc = 1;
    static char name[] = "lumaro-fuzz";
    static char* argv[] = {name, nullptr};
    // Never destroyed: the platform's queue threads may still run when the fuzzer exits.
    static auto* application = new QCoreApplication(argc, argv);
    (void)application;
}

}  // namespace lumaro::fuzz
