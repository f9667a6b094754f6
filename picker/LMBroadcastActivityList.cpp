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

// A host-information entry as a string: none when absent, none with an error line when it is
// of another type.
QString hostInfoString(const QVariantMap& hostInfo, const QString& key) {
    bool wrongType = false;
    const QString text = LMBroadcastValues::stringValue(hostInfo.value(key), &wrongType);
    if (wrongType) {
        os_log_error(OS_LOG_DEFAULT, "Ignoring host information %{public}s: not a string", key);
    }
    return text;
}

// The host's icon from the host-information entry: none when absent or not an image.
std::shared_ptr<NSImage> hostInfoIcon(const QVariantMap& hostInfo) {
    if (!hostInfo.contains(LMBroadcastExtensionKeyExtensionHostInfoAppIcon)) {
        return nullptr;
    }
    const QVariant value = hostInfo.value(LMBroadcastExtensionKeyExtensionHostInfoAppIcon);
    std::shared_ptr<NSImage> icon;
    if (value.typeId() == QMetaType::QByteArray) {
        icon = NSImage::initWithData(value.toByteArray());
    }
    if (!icon) {
        os_log_error(OS_LOG_DEFAULT, "Ignoring host information %{public}s: not image data",
                     LMBroadcastExtensionKeyExtensionHostInfoAppIcon);
    }
    return icon;
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

// Puts `value` into `slot` when it holds exactly the slot's type.
template <class T>
bool assignIfOfType(const QVariant& value, T& slot) {
    if (value.metaType() != QMetaType::fromType<T>()) {
        return false;
    }
    slot = value.value<T>();
    return true;
}

// Stores `value` loaded from an item titled `title` in the first slot whose key matches. A value
// of the wrong type leaves the slot as it was, with an error line.
void storeSetupValue(SetupResult& result, const QString& title, const QVariant& value) {
    const std::lock_guard lock(result.mutex);
    bool stored = true;
    if (title == LMBroadcastExtensionKeyExtensionBundleIdentifier) {
        stored = assignIfOfType(value, result.extensionBundleID);
    } else if (title == LMBroadcastExtensionKeyExtensionUserInfo) {
        stored = assignIfOfType(value, result.userInfo);
    } else if (title == LMBroadcastExtensionKeyBroadcastConfiguration) {
        stored = assignIfOfType(value, result.configuration);
    } else if (title == kLMBroadcastExtensionKeyExtensionServiceURL) {
        QString text;
        stored = assignIfOfType(value, result.serviceURL) || assignIfOfType(value, text);
        if (!text.isNull()) {
            result.serviceURL = QUrl(text);  // a URL that travelled as its string
        }
    }
    if (!stored) {
        os_log_error(OS_LOG_DEFAULT, "Ignoring setup result %{public}s: unexpected value type",
                     title);
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
        if (item->attachments().empty() || !item->attachments().front()) {
            os_log_error(OS_LOG_DEFAULT, "Error loading input item for type: no attachment");
            continue;
        }
        const NSItemProviderPtr provider = item->attachments().front();
        if (!provider->hasItemConformingToTypeIdentifier(kUTTypeData)) {
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
                    os_log_error(OS_LOG_DEFAULT,
                                 "Error loading input item for type: the host information is "
                                 "not a dictionary");
                    return;
                }
                const QVariantMap hostInfo = loaded.toMap();
                const std::shared_ptr<NSImage> icon = hostInfoIcon(hostInfo);
                if (handler) {
                    handler(
                        hostInfoString(hostInfo, LMBroadcastExtensionKeyExtensionHostInfoBundleID),
                        hostInfoString(hostInfo, LMBroadcastExtensionKeyExtensionHostInfoAppName),
                        icon,
                        hostInfoString(hostInfo,
                                       LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension),
                        hostInfoString(
                            hostInfo,
                            LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertTitle),
                        hostInfoString(
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
        if (!item || item->attachments().empty() || !item->attachments().front()) {
            // This item can never count, so the handler will not be called for this call.
            os_log_error(OS_LOG_DEFAULT, "Error loading input item for type: no attachment");
            continue;
        }
        const NSItemProviderPtr provider = item->attachments().front();
        if (!provider->hasItemConformingToTypeIdentifier(kUTTypeData)) {
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
