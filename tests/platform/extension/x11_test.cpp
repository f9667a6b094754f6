// The remote view under X11: the service's window embedded in the host's view (Xvfb).
#include <gtest/gtest.h>

#include "tests/platform/appkit/XvfbServer.h"

TEST(RemoteViewOnX11, EmbedsTheServiceWindowAndFollowsTheViewSize) {
    if (!lumaro::test::XvfbServer::available()) {
        GTEST_SKIP() << "Xvfb is not installed";
    }
    lumaro::test::XvfbServer x;
    ASSERT_TRUE(x.start()) << x.error().toStdString();
    const QString build = qEnvironmentVariable("LUMARO_BUILD_DIR");
    const auto result = x.run(build + "/tests/platform/extension/remote_view_scene",
                              {build + "/programs/example-setup-ui/example-setup-ui",
                               lumaro::test::screenshotPath("remote-view-x11")});
    ASSERT_TRUE(result.finished) << result.standardError.toStdString();
    EXPECT_EQ(result.exitCode, 0) << result.standardOutput.toStdString()
                                  << result.standardError.toStdString();
    EXPECT_TRUE(result.standardOutput.contains("container 400x300"))
        << result.standardOutput.toStdString();
}
