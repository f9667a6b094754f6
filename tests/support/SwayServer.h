// A private sway (wlroots, headless backend, pixman renderer) for tests of what weston does not
// offer, xdg-foreign among them. Same shape as WestonServer. sway refuses to run as root; under
// root it runs as nobody (setpriv) with its socket in a folder of nobody's, and the clients keep
// a runtime folder of their own and reach the socket by its path.
#pragma once

#include "tests/support/WestonServer.h"

namespace lumaro::test {

class SwayServer : public WaylandServer {
public:
    // Whether sway (and, under root, setpriv) is on the PATH.
    static bool available();

    // Starts `sway -c CONFIG` (one headless output of the size, no Xwayland) and waits until its
    // socket accepts connections. False (see error()) when it does not come up.
    bool start(int width = 1024, int height = 768);
};

}  // namespace lumaro::test
