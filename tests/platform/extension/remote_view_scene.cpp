// A host on X11 for the remote-view test: begins a request of the example setup UI (given as
// the first argument), asks for its remote view, and checks that the service's window is
// embedded in the remote view and follows its size. Prints what it found; exit 0 when embedded.
// A second argument is a PNG path for a screenshot of the screen.
#include <QApplication>
#include <QWidget>
#include <cstdio>

#include "platform/appkit/NSRemoteViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionRequest.h"
#include "tests/platform/appkit/XvfbServer.h"

using platform::dispatch::runMainLoopUntil;

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: remote_view_scene EXECUTABLE [SCREENSHOT]\n");
        return 2;
    }
    qputenv("LUMARO_EXAMPLE_SETUP_MODE", "interactive");
    const QVariantMap attributes{
        {NSExtensionPointIdentifierKey, QStringLiteral("com.example.test")},
        {NSExtensionPrincipalClassKey, QStringLiteral("ExampleSetupViewController")}};
    auto plugIn = std::make_shared<NSExtensionPlugIn>(
        QStringLiteral("com.example.x11.setupui"), QUrl(), 1,
        QUrl::fromLocalFile(QString::fromLocal8Bit(argv[1])), attributes, QString());
    auto extension = std::make_shared<NSExtension>(QStringLiteral("com.example.x11.setupui"),
                                                   attributes, QVariantMap{}, plugIn, nullptr);
    QUuid request;
    bool begun = false;
    extension->beginExtensionRequestWithInputItems({}, [&](QUuid id, NSErrorPtr) {
        request = id;
        begun = true;
    });
    if (!runMainLoopUntil([&] { return begun; }, 20000) || request.isNull()) {
        std::printf("the request did not begin\n");
        return 1;
    }
    auto parameters = std::make_shared<NSRemoteViewControllerParameters>();
    parameters->setServiceBundleIdentifier(QStringLiteral("com.example.x11.setupui.veilnet"));
    parameters->setExtensionIdentifier(request);
    std::shared_ptr<NSRemoteViewController> remote;
    bool answered = false;
    NSRemoteViewController::requestViewController(
        parameters, [&](std::shared_ptr<NSRemoteViewController> c, NSErrorPtr) {
            remote = std::move(c);
            answered = true;
        });
    int status = 1;
    if (!runMainLoopUntil([&] { return answered; }, 20000) || !remote) {
        std::printf("no remote view controller\n");
    } else {
        std::shared_ptr<NSView> view = remote->view();
        view->widget()->show();
        view->setFrame(NSMakeRect(0, 0, 400, 300));
        QWidget* container = remote->remoteWindowContainer();
        runMainLoopUntil([&] { return container && container->size() == QSize(400, 300); }, 5000);
        std::printf("window %lld container %dx%d\n",
                    static_cast<long long>(remote->remoteWindowId()),
                    container ? container->width() : -1, container ? container->height() : -1);
        status = remote->remoteWindowId() != 0 && container && container->size() == QSize(400, 300)
                     ? 0
                     : 1;
        if (argc > 2) {
            runMainLoopUntil([] { return false; }, 300);  // let both windows draw
            lumaro::test::grabScreenToPng(QString::fromLocal8Bit(argv[2]));
        }
    }
    extension->cancelExtensionRequestWithIdentifier(request);
    runMainLoopUntil([] { return platform::extension::liveChildCount() == 0; }, 20000);
    remote.reset();
    return status;
}
