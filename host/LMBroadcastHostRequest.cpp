#include "host/LMBroadcastHostRequest.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QWidget>

#include "discovery/LMExtensions.h"
#include "picker/LMBroadcastActivityKeys.h"
#include "picker/LMBroadcastActivityViewServiceExtensionHostContext.h"
#include "platform/appkit/NSRemoteViewController.h"
#include "platform/extension/NSExtensionRegistry.h"
#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"

namespace {

const QString kSheetSelector = QString::fromLatin1(kLMPresentBroadcastActivitySheetSelector.data(),
                                                   kLMPresentBroadcastActivitySheetSelector.size());
const QString kFinishSelector =
    QString::fromLatin1(kLMExtensionDidFinishSelector.data(), kLMExtensionDidFinishSelector.size());

// One JSON value on its own: a string, or null for an absent one.
QString jsonString(const QString& value) {
    if (value.isNull()) {
        return QStringLiteral("null");
    }
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}
QString jsonURL(const QUrl& url) {
    return url.isEmpty() ? QStringLiteral("null") : jsonString(url.toString(QUrl::FullyEncoded));
}

// A readable form of one host-message argument.
QString describe(const QVariant& value) {
    if (!value.isValid()) {
        return QStringLiteral("null");
    }
    if (value.typeId() == QMetaType::QUrl) {
        return value.toUrl().toString();
    }
    return value.toString();
}


// The host's object on the auxiliary connection: every message goes to the request on the main
// queue, in order of arrival.
class HostTarget : public NSXPCInvocationTarget {
public:
    explicit HostTarget(std::weak_ptr<LMBroadcastHostRequest> request)
        : request_(std::move(request)) {}
    void performSelector(const QString& selector, const QVariantList& arguments) override {
        dispatch_async(dispatch_get_main_queue(), [request = request_, selector, arguments] {
            if (auto self = request.lock()) {
                self->received(selector, arguments);
            }
        });
    }

private:
    std::weak_ptr<LMBroadcastHostRequest> request_;
};

}  // namespace

QString LMBroadcastHostOutcome::toJson() const {
    return QStringLiteral(
               "{\"launchURL\": %1, \"broadcastURL\": %2, \"extensionBundleID\": %3, "
               "\"cancelled\": %4}")
        .arg(jsonURL(launchURL), jsonURL(broadcastURL), jsonString(extensionBundleID),
             cancelled ? QStringLiteral("true") : QStringLiteral("false"));
}

LMBroadcastHostRequest::LMBroadcastHostRequest(LMBroadcastHostRequestOptions options)
    : options_(std::move(options)) {}

LMBroadcastHostRequest::~LMBroadcastHostRequest() = default;

std::vector<NSExtensionItemPtr> LMBroadcastHostRequest::inputItems(
    const LMBroadcastHostRequestOptions& options) {
    auto request = std::make_shared<NSExtensionItem>();
    request->setUserInfo({
        {kLMBroadcastActivityExtensionLedraKeyLocalizedNoService, options.localizedNoService},
        {kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle,
         options.localizedBroadcastTitle},
        {kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps,
         options.localizedFindBroadcastApps},
        {kLMBroadcastActivityExtensionLedraKeyWidth, options.width},
        {kLMBroadcastActivityExtensionLedraKeyHeight, options.height},
        {kLMBroadcastActivityExtensionLedraKeySourceX, options.sourceX},
        {kLMBroadcastActivityExtensionLedraKeySourceY, options.sourceY},
    });
    QVariantMap hostInfo{
        {LMBroadcastExtensionKeyExtensionHostInfoAppName, options.appName},
        {LMBroadcastExtensionKeyExtensionHostInfoBundleID, options.bundleID},
    };
    if (!options.iconData.isEmpty()) {
        hostInfo.insert(LMBroadcastExtensionKeyExtensionHostInfoAppIcon, options.iconData);
    }
    if (!options.preferredExtension.isNull()) {
        hostInfo.insert(LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension,
                        options.preferredExtension);
    }
    if (!options.notInstalledTitle.isNull()) {
        hostInfo.insert(
            LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertTitle,
            options.notInstalledTitle);
    }
    if (!options.notInstalledMessage.isNull()) {
        hostInfo.insert(
            LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertMessage,
            options.notInstalledMessage);
    }
    return {request,
            LMExtensions::itemWithTitle(LMBroadcastExtensionKeyExtensionHostInfo, hostInfo)};
}

void LMBroadcastHostRequest::setHandlers(Handlers handlers) {
    handlers_ = std::move(handlers);
}

bool LMBroadcastHostRequest::start(QString* error) {
    NSErrorPtr lookupError;
    picker_ = NSExtension::extensionWithIdentifier(options_.pickerIdentifier, &lookupError);
    if (!picker_) {
        if (error) {
            *error = QStringLiteral("the picker \"%1\" is not installed%2; looked in %3")
                         .arg(options_.pickerIdentifier,
                              lookupError
                                  ? QStringLiteral(" (%1)").arg(lookupError->localizedDescription())
                                  : QString(),
                              NSExtensionRegistry::searchPaths().join(QStringLiteral(", ")));
        }
        return false;
    }
    const std::weak_ptr<LMBroadcastHostRequest> weak = weak_from_this();
    picker_->_setHostContextClass(
        LMBroadcastActivityViewServiceExtensionHostContext::contextClass());
    picker_->_setAuxiliaryExportedObject(std::make_shared<HostTarget>(weak));
    picker_->setRequestInterruptionBlock([weak](QUuid identifier) {
        auto self = weak.lock();
        if (self && identifier == self->requestIdentifier_ && !self->finished_) {
            self->pickerGone_ = true;
            self->pickerGoneWhy_ =
                QStringLiteral("the picker exited before it reported an outcome");
            if (self->handlers_.pickerExited) {
                self->handlers_.pickerExited(self->pickerGoneWhy_);
            }
        }
    });
    picker_->setRequestCancellationBlock([weak](QUuid identifier, NSErrorPtr cancelError) {
        auto self = weak.lock();
        if (self && identifier == self->requestIdentifier_ && !self->finished_) {
            self->pickerGone_ = true;
            self->pickerGoneWhy_ =
                QStringLiteral("the picker cancelled its request%1")
                    .arg(cancelError ? QStringLiteral(" (error %1)").arg(cancelError->code())
                                     : QString());
            if (self->handlers_.pickerExited) {
                self->handlers_.pickerExited(self->pickerGoneWhy_);
            }
        }
    });
    picker_->beginExtensionRequestWithInputItems(
        options_.viewParametersOnly ? std::vector<NSExtensionItemPtr>() : inputItems(options_),
        [weak](QUuid identifier, NSErrorPtr beginError) {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            if (identifier.isNull()) {
                self->pickerGone_ = true;
                self->pickerGoneWhy_ = QStringLiteral("the picker could not start: %1")
                                           .arg(beginError ? beginError->localizedDescription()
                                                           : QStringLiteral("unknown error"));
                if (self->handlers_.pickerExited) {
                    self->handlers_.pickerExited(self->pickerGoneWhy_);
                }
                return;
            }
            self->requestIdentifier_ = identifier;
            if (self->options_.viewParametersOnly) {
                self->requestPickerView(
                    QVariantMap{{kLMParameterIsPrismApp, QStringLiteral("NO")},
                                {kLMParameterViewWidth, self->options_.width},
                                {kLMParameterViewHeight, self->options_.height},
                                {kLMParameterRequestIdentifier, QVariant::fromValue(identifier)}},
                    false);
            }
        });
    return true;
}

void LMBroadcastHostRequest::stop() {
    if (picker_ && !requestIdentifier_.isNull()) {
        picker_->cancelExtensionRequestWithIdentifier(requestIdentifier_);
    }
}

void LMBroadcastHostRequest::received(const QString& selector, const QVariantList& arguments) {
    QStringList described;
    for (const QVariant& argument : arguments) {
        described << describe(argument);
    }
    if (handlers_.arrival) {
        handlers_.arrival(selector, described.join(QStringLiteral(", ")));
    }
    if (selector == kSheetSelector) {
        sheetRequested_ = true;
        if (options_.showSheet) {
            requestPickerView({}, true);
        }
    } else if (selector == kFinishSelector && arguments.size() == 4 && !finished_) {
        finished_ = true;
        LMBroadcastHostOutcome outcome;
        outcome.launchURL = arguments[0].isValid() ? arguments[0].toUrl() : QUrl();
        outcome.broadcastURL = arguments[1].isValid() ? arguments[1].toUrl() : QUrl();
        outcome.extensionBundleID = arguments[2].isValid() ? arguments[2].toString() : QString();
        outcome.cancelled = arguments[3].toInt() != 0;
        if (handlers_.outcome) {
            handlers_.outcome(outcome);
        }
    }
}

void LMBroadcastHostRequest::requestPickerView(const QVariant& clientParameters, bool show) {
    auto parameters = std::make_shared<NSRemoteViewControllerParameters>();
    parameters->setServiceBundleIdentifier(options_.pickerIdentifier + QStringLiteral(".veilnet"));
    parameters->setExtensionIdentifier(QVariant::fromValue(requestIdentifier_));
    parameters->setHostAppClientParameters(clientParameters);
    const std::weak_ptr<LMBroadcastHostRequest> weak = weak_from_this();
    const QString title = QStringLiteral("%1: broadcast").arg(options_.appName);
    NSRemoteViewController::requestViewController(
        parameters,
        [weak, title, show](std::shared_ptr<NSRemoteViewController> controller, NSErrorPtr error) {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            if (!controller) {
                os_log_error(OS_LOG_DEFAULT, "lumaro-broadcast: no view of the picker: %@", error);
                return;
            }
            self->sheet_ = controller;
            if (self->handlers_.viewArrived) {
                const NSSize size = controller->remoteViewSize();
                self->handlers_.viewArrived(size.width, size.height);
            }
            // With widgets in this process the picker's view is embedded in a window of the
            // host's; otherwise the picker's own window, shown when its view is served, is it.
            if (show && qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr) {
                if (QWidget* window = controller->view()->widget()) {
                    window->setWindowTitle(title);
                    window->show();
                }
            }
        });
}

QString LMBroadcastHostRequest::diagnosis() const {
    if (pickerGone_) {
        return pickerGoneWhy_;
    }
    if (requestIdentifier_.isNull()) {
        return QStringLiteral("the picker did not start");
    }
    if (sheetRequested_) {
        return QStringLiteral("the setup UI was shown, but no outcome reached the host");
    }
    return QStringLiteral("nothing was chosen in the picker");
}
