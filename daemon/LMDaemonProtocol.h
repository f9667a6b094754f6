// The daemon's interface (LMDaemonProtocol) and the interface a client exports to it
// (LMClientProtocol), as protocol descriptions: selectors in declaration order with their argument
// and reply-block types. Both connections and the installed D-Bus introspection XML are made from
// these tables.
#pragma once

#include <QString>

#include "platform/xpc/NSXPCInterface.h"

// The daemon's bus name (its mach service).
inline constexpr const char* kLMDaemonServiceName = "com.vantor.lumarod";

const NSXPCProtocolDescription& LMDaemonProtocol();
const NSXPCProtocolDescription& LMClientProtocol();

// A complete introspection document (doctype and <node>) holding `iface`'s interface: the form of
// the XML files installed under share/dbus-1/interfaces.
QString LMIntrospectionDocument(const NSXPCInterface& iface);
