// The three loaders of the picker controller: the host's application information, the
// installed setup-UI extensions as streaming activities, and the items a setup UI returns.
#include <QImage>
#include <atomic>
#include <mutex>

#include "discovery/LMExtensions.h"
#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "picker/LMBroadcastActivityKeys.h"
#include "picker/LMBroadcastValues.h"
#include "platform/extension/UTType.h"
#include "platform/log/os_log.h"

namespace {

// A host-information text as found (see textValue).
QString hostInfoText(const QVariantMap& hostInfo, const QString& key) {
    return LMBroadcastValues::textValue(hostInfo.value(key));
}

// The host's icon from the host-information entry: none when absent or not image data.
std::shared_ptr<NSImage> hostInfoIcon(const QVariantMap& hostInfo) {
    const QVariant value = hostInfo.value(LMBroadcastExtensionKeyExtensionHostInfoAppIcon);
    if (value.typeId() != QMetaType::QByteArray) {
        return nullptr;
    }
    return NSImage::initWithData(value.toByteArray());
}

// The shared record of one loadItems call: the four slots under a lock, the number of items
// taken at the start, and the count of completed loads.
struct SetupResult {
    explicit SetupResult(uint64_t items) : itemCount(items) {}

    const uint64_t itemCount;
    std::atomic<uint64_t> completed{0};

    std::mutex mutex;
    QString extensionBundleID;
    QVariantMap userInfo;          // an empty dictionary until an item fills it
    QByteArray configuration{""};  // empty data, not none
    QUrl serviceURL;
};

// Stores `value` loaded from an item titled `title` in the first slot whose key matches,
// replacing what the slot held. A value of another type is stored as the slot's readers would get
// it (a number as its text, a URL that travelled as its string as that URL, anything that does not
// convert as an empty value of the slot's kind), never skipped.
void storeSetupValue(SetupResult& result, const QString& title, const QVariant& value) {
    const std::lock_guard lock(result.mutex);
    if (title == LMBroadcastExtensionKeyExtensionBundleIdentifier) {
        result.extensionBundleID = LMBroadcastValues::textValue(value);
    } else if (title == LMBroadcastExtensionKeyExtensionUserInfo) {
        result.userInfo = value.toMap();
    } else if (title == LMBroadcastExtensionKeyBroadcastConfiguration) {
        const QByteArray data = value.toByteArray();
        result.configuration = data.isNull() ? QByteArray("") : data;  // data, never none
    } else if (title == kLMBroadcastExtensionKeyExtensionServiceURL) {
        const QUrl url = value.typeId() == QMetaType::QUrl
                             ? value.toUrl()
                             : QUrl(LMBroadcastValues::textValue(value));
        // Text that is no URL converts to none: the host's side refuses to read it as one.
        result.serviceURL = url.isValid() ? url : QUrl();
    }
}

}  // namespace

void LMBroadcastActivityExtensionNSViewController::loadHostApplicationInfo(
    HostApplicationInfoHandler handler) {
    const auto context = extensionContext();
    if (!context) {
        return;  // no request yet: no host-information item
    }
    // The whole array, in order: every host-information item calls the handler.
    for (const NSExtensionItemPtr& item : context->inputItems()) {
        if (!item || item->attributedTitle() != LMBroadcastExtensionKeyExtensionHostInfo) {
            continue;
        }
        const NSItemProviderPtr provider =
            item->attachments().empty() ? nullptr : item->attachments().front();
        if (!provider || !provider->hasItemConformingToTypeIdentifier(kUTTypeData)) {
            continue;
        }
        provider->loadItemForTypeIdentifier(
            kUTTypeData, {}, [item, handler](const QVariant& loaded, const NSErrorPtr& error) {
                if (error) {
                    os_log_error(OS_LOG_DEFAULT, "Error loading input item for type");
                    return;
                }
                if (item->attributedTitle() != LMBroadcastExtensionKeyExtensionHostInfo) {
                    return;
                }
                if (loaded.typeId() != QMetaType::QVariantMap) {
                    return;  // no dictionary to read the host from
                }
                const QVariantMap hostInfo = loaded.toMap();
                const std::shared_ptr<NSImage> icon = hostInfoIcon(hostInfo);
                if (handler) {
                    handler(
                        hostInfoText(hostInfo, LMBroadcastExtensionKeyExtensionHostInfoBundleID),
                        hostInfoText(hostInfo, LMBroadcastExtensionKeyExtensionHostInfoAppName),
                        icon,
                        hostInfoText(hostInfo,
                                     LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension),
                        hostInfoText(
                            hostInfo,
                            LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertTitle),
                        hostInfoText(
                            hostInfo,
                            LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertMessage));
                }
            });
    }
}

void LMBroadcastActivityExtensionNSViewController::loadStreamingActivitiesWithHandler(
    StreamingActivitiesHandler handler) {
    os_log(OS_LOG_DEFAULT, "Loading streaming activities");
    // Held weakly: a controller released meanwhile becomes no activity's delegate.
    const std::weak_ptr<LMBroadcastActivityExtensionNSViewController> weakSelf = strongSelf();
    LMExtensions::extensionsWithMatchingPointName(
        kLMBroadcastSetupUIExtensionPoint,
        [weakSelf, handler](const std::vector<NSExtensionPtr>& extensions,
                            const NSErrorPtr& error) {
            if (error) {
                os_log_error(OS_LOG_DEFAULT, "Error finding setup UI extensions : %i",
                             static_cast<int>(error->code()));
            }
            const auto controller = weakSelf.lock();
            LMStreamingActivityArray activities;
            activities.reserve(extensions.size());
            for (const NSExtensionPtr& extension : extensions) {
                auto activity = LMStreamingActivity::initWithApplicationExtension(extension);
                if (!activity) {
                    continue;
                }
                activity->setDelegate(controller);
                activities.push_back(std::move(activity));
            }
            os_log(OS_LOG_DEFAULT, "Returning streaming activity count = %i",
                   static_cast<int>(activities.size()));
            if (handler) {
                handler(activities);
            }
        });
}

void LMBroadcastActivityExtensionNSViewController::loadItems(
    const std::vector<NSExtensionItemPtr>& items, SetupResultHandler withHandler) {
    const auto result = std::make_shared<SetupResult>(items.size());
    for (const NSExtensionItemPtr& item : items) {
        // An item without a data attachment never counts, so the handler is not called for this
        // call.
        const NSItemProviderPtr provider =
            !item || item->attachments().empty() ? nullptr : item->attachments().front();
        if (!provider || !provider->hasItemConformingToTypeIdentifier(kUTTypeData)) {
            continue;
        }
        provider->loadItemForTypeIdentifier(
            kUTTypeData, {},
            [result, item, withHandler](const QVariant& loaded, const NSErrorPtr& error) {
                if (error) {
                    os_log_error(OS_LOG_DEFAULT, "Error loading input item for type");
                    return;
                }
                storeSetupValue(*result, item->attributedTitle(), loaded);
                // Exactly one completion sees the count reach the number of items.
                const uint64_t done = result->completed.fetch_add(1, std::memory_order_acq_rel) + 1;
                if (done != result->itemCount) {
                    return;
                }
                QString extensionBundleID;
                QByteArray configuration;
                QVariantMap userInfo;
                QUrl serviceURL;
                {
                    const std::lock_guard lock(result->mutex);
                    extensionBundleID = result->extensionBundleID;
                    configuration = result->configuration;
                    userInfo = result->userInfo;
                    serviceURL = result->serviceURL;
                }
                if (withHandler) {
                    withHandler(extensionBundleID, configuration, userInfo, serviceURL);
                }
            });
    }
}
