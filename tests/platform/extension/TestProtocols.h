// The one-way protocol that the runtime tests' host offers on the auxiliary connection.
#pragma once

#include "platform/xpc/NSXPCInterface.h"

namespace lumaro::test {

inline constexpr char kNoteSelector[] = "note:";

inline const NSXPCProtocolDescription& NoteProtocol() {
    static const NSXPCProtocolDescription protocol{
        "TestNoteProtocol",
        "com.example.test.Note",
        "/com/example/test/Note",
        {{kNoteSelector, {NSXPCType::Int32}, false, {}}}};
    return protocol;
}

}  // namespace lumaro::test
