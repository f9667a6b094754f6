// Asking the broadcast picker for a broadcast set-up, from a C++ application.
//
//     lumaro::broadcast::SetupRequest request;
//     request.setHost("Notes", "com.example.notes");
//     request.setAnchor(640, 400);
//     request.start([](const lumaro::broadcast::SetupResult& result) {
//         if (result.finished) use(result.broadcastURL, result.cancelled);
//         else report(result.failure);
//     });
//
// The request runs the picker in a process of its own and calls back exactly once, with the
// picker's outcome or the reason there is none, unless the request is cancelled or destroyed
// first: after cancel() or destruction nothing is called. The application runs a Qt event loop
// (QCoreApplication or QApplication) on its main thread; the callback runs there.
//
// ABI: the classes keep their state behind a private pointer. Types of the standard library
// cross the boundary only as std::string (UTF-8 text) and std::function (the callback).
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#define LUMARO_BROADCAST_HOST_API __attribute__((visibility("default")))

namespace lumaro::broadcast {

struct LUMARO_BROADCAST_HOST_API SetupResult {
    // True when the picker reported an outcome; false when the request ended without one.
    bool finished = false;
    // The outcome; a value the service left absent is empty.
    std::string launchURL;
    std::string broadcastURL;
    std::string extensionBundleID;
    bool cancelled = false;
    // Without an outcome: what the host saw (the picker exited, the time limit passed, ...).
    std::string failure;
};

class LUMARO_BROADCAST_HOST_API SetupRequest {
public:
    using Completion = std::function<void(const SetupResult&)>;

    SetupRequest();
    ~SetupRequest();
    SetupRequest(const SetupRequest&) = delete;
    SetupRequest& operator=(const SetupRequest&) = delete;

    // The menu's texts: its title line (%@ stands for the app name) and the two lines shown
    // when no broadcast service is installed.
    void setTexts(const std::string& title, const std::string& noService,
                  const std::string& findApps);
    // The application: its name and bundle identifier; its icon as encoded image data (PNG,
    // JPEG, ...); none by default.
    void setHost(const std::string& appName, const std::string& bundleID);
    void setIcon(const void* data, std::size_t size);
    // A service's setup-UI extension identifier: no menu, that service is set up at once.
    void setPreferredExtension(const std::string& extensionIdentifier);
    // The texts of the alert shown when no service is installed.
    void setNotInstalledAlert(const std::string& title, const std::string& message);
    // The picker's view size, and the screen point of its menu (from the bottom left).
    void setViewSize(double width, double height);
    void setAnchor(double x, double y);
    // How long to wait for an outcome before ending the request (0: no limit, the default).
    void setTimeLimit(int seconds);

    // Starts the picker. False when it cannot be started (the picker is not installed, a
    // request is already running): `error` says why, and the completion is never called.
    bool start(Completion completion, std::string* error = nullptr);
    // Ends a running request: the picker and the service's setup UI are stopped.
    void cancel();
    bool running() const;

private:
    friend struct SetupRequestAccess;  // the project's own callers, inside the library
    struct Private;
    std::shared_ptr<Private> d_;
};

}  // namespace lumaro::broadcast
