// The public request, over the host request of picker/: options in, one result out.
#include "lumaro-broadcast-host/BroadcastSetup.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>
#include <QTimer>

#include "host/LMBroadcastHostRequest.h"
#include "host/SetupRequestAccess.h"

namespace lumaro::broadcast {

struct SetupRequest::Private {
    LMBroadcastHostRequestOptions options;
    int timeLimitSeconds = 0;
    std::shared_ptr<LMBroadcastHostRequest> request;
    // Which start a pending time limit belongs to: a limit outlived by its request is ignored.
    unsigned generation = 0;
    Completion completion;

    // Delivers the one result. The request is let go first, so that whatever its ending
    // reports afterwards finds nothing to call.
    void finish(SetupResult result) {
        if (!request) {
            return;
        }
        end();
        Completion call = std::move(completion);
        completion = nullptr;
        if (call) {
            call(result);
        }
    }

    void end() {
        ++generation;
        if (auto held = std::move(request)) {
            held->stop();
        }
    }
};

namespace {
QString text(const std::string& value) {
    return QString::fromStdString(value);
}
std::string urlText(const QUrl& url) {
    return url.isEmpty() ? std::string() : url.toString(QUrl::FullyEncoded).toStdString();
}
}  // namespace

LMBroadcastHostRequestOptions& SetupRequestAccess::options(SetupRequest& request) {
    return request.d_->options;
}

SetupRequest::SetupRequest() : d_(std::make_shared<Private>()) {}

SetupRequest::~SetupRequest() {
    d_->end();
}

void SetupRequest::setTexts(const std::string& title, const std::string& noService,
                            const std::string& findApps) {
    d_->options.localizedBroadcastTitle = text(title);
    d_->options.localizedNoService = text(noService);
    d_->options.localizedFindBroadcastApps = text(findApps);
}

void SetupRequest::setHost(const std::string& appName, const std::string& bundleID) {
    d_->options.appName = text(appName);
    d_->options.bundleID = text(bundleID);
}

void SetupRequest::setIcon(const void* data, std::size_t size) {
    d_->options.iconData = data != nullptr ? QByteArray(static_cast<const char*>(data),
                                                       static_cast<qsizetype>(size))
                                           : QByteArray();
}

void SetupRequest::setPreferredExtension(const std::string& extensionIdentifier) {
    d_->options.preferredExtension =
        extensionIdentifier.empty() ? QString() : text(extensionIdentifier);
}

void SetupRequest::setNotInstalledAlert(const std::string& title, const std::string& message) {
    d_->options.notInstalledTitle = text(title);
    d_->options.notInstalledMessage = text(message);
}

void SetupRequest::setViewSize(double width, double height) {
    d_->options.width = width;
    d_->options.height = height;
}

void SetupRequest::setAnchor(double x, double y) {
    d_->options.sourceX = x;
    d_->options.sourceY = y;
}

void SetupRequest::setTimeLimit(int seconds) {
    d_->timeLimitSeconds = seconds > 0 ? seconds : 0;
}

bool SetupRequest::start(Completion completion, std::string* error) {
    if (d_->request) {
        if (error) {
            *error = "a request is already running";
        }
        return false;
    }
    auto request = std::make_shared<LMBroadcastHostRequest>(d_->options);
    const std::weak_ptr<Private> weak = d_;
    request->setHandlers({
        .arrival = nullptr,
        .outcome =
            [weak](const LMBroadcastHostOutcome& outcome) {
                if (auto d = weak.lock()) {
                    SetupResult result;
                    result.finished = true;
                    result.launchURL = urlText(outcome.launchURL);
                    result.broadcastURL = urlText(outcome.broadcastURL);
                    result.extensionBundleID = outcome.extensionBundleID.toStdString();
                    result.cancelled = outcome.cancelled;
                    d->finish(std::move(result));
                }
            },
        .pickerExited =
            [weak](const QString& why) {
                if (auto d = weak.lock()) {
                    SetupResult result;
                    result.failure = why.toStdString();
                    d->finish(std::move(result));
                }
            },
        .viewArrived = nullptr,
    });
    QString why;
    if (!request->start(&why)) {
        if (error) {
            *error = why.toStdString();
        }
        return false;
    }
    d_->request = std::move(request);
    d_->completion = std::move(completion);
    if (d_->timeLimitSeconds > 0) {
        QTimer::singleShot(d_->timeLimitSeconds * 1000, QCoreApplication::instance(),
                           [weak, generation = d_->generation, seconds = d_->timeLimitSeconds] {
                               auto d = weak.lock();
                               if (!d || !d->request || d->generation != generation) {
                                   return;
                               }
                               SetupResult result;
                               result.failure = QStringLiteral("no outcome within %1 s: %2")
                                                    .arg(seconds)
                                                    .arg(d->request->diagnosis())
                                                    .toStdString();
                               d->finish(std::move(result));
                           });
    }
    return true;
}

void SetupRequest::cancel() {
    d_->completion = nullptr;
    d_->end();
}

bool SetupRequest::running() const {
    return d_->request != nullptr;
}

}  // namespace lumaro::broadcast
