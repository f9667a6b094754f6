#include "platform/extension/NSExtensionContext.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QProcess>
#include <map>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"

NSExtensionContext::NSExtensionContext() = default;
NSExtensionContext::~NSExtensionContext() = default;

std::shared_ptr<NSExtensionContext> NSExtensionContext::initWithInputItems(
    std::vector<NSExtensionItemPtr> inputItems,
    std::shared_ptr<NSXPCListenerEndpoint> listenerEndpoint, const QUuid& contextUUID) {
    std::shared_ptr<NSExtensionContext> self = weak_from_this().lock();
    if (!self) {
        os_log_error(OS_LOG_DEFAULT, "NSExtensionContext: initialised outside a shared pointer");
        return {};
    }
    std::lock_guard lock(mutex_);
    inputItems_.clear();
    for (auto& item : inputItems) {
        if (item) {
            inputItems_.push_back(std::move(item));
        }
    }
    listenerEndpoint_ = std::move(listenerEndpoint);
    uuid_ = contextUUID;
    return self;
}

const std::vector<NSExtensionItemPtr>& NSExtensionContext::inputItems() const {
    return inputItems_;
}

const QUuid& NSExtensionContext::_UUID() const {
    return uuid_;
}

const std::shared_ptr<NSXPCListenerEndpoint>& NSExtensionContext::_listenerEndpoint() const {
    return listenerEndpoint_;
}

std::shared_ptr<NSXPCConnection> NSExtensionContext::_auxiliaryConnection() const {
    std::lock_guard lock(mutex_);
    return auxiliaryConnection_;
}

void NSExtensionContext::_setAuxiliaryConnection(std::shared_ptr<NSXPCConnection> connection) {
    std::lock_guard lock(mutex_);
    auxiliaryConnection_ = std::move(connection);
}

void NSExtensionContext::openURL(const QUrl& url, std::function<void(bool)> completionHandler) {
    bool opened = false;
    if (url.isValid() && !url.isEmpty()) {
        if (qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
            opened = QDesktopServices::openUrl(url);
        } else {
            opened = QProcess::startDetached(QStringLiteral("xdg-open"), {url.toString()});
        }
    }
    if (completionHandler) {
        dispatch_async(dispatch_get_main_queue(), [completionHandler = std::move(completionHandler),
                                                   opened] { completionHandler(opened); });
    }
}

void NSExtensionContext::_setRequestEndHandler(RequestEndHandler handler) {
    std::lock_guard lock(mutex_);
    requestEndHandler_ = std::move(handler);
}

bool NSExtensionContext::_isRequestEnded() const {
    std::lock_guard lock(mutex_);
    return ended_;
}

bool NSExtensionContext::endRequest(std::vector<NSExtensionItemPtr> items, NSErrorPtr error) {
    RequestEndHandler handler;
    {
        std::lock_guard lock(mutex_);
        if (ended_) {
            return false;
        }
        ended_ = true;
        handler = requestEndHandler_;
    }
    if (!handler) {
        return false;
    }
    return handler(std::move(items), std::move(error));
}

void NSExtensionContext::completeRequestReturningItems(
    std::vector<NSExtensionItemPtr> items, std::function<void(bool)> completionHandler) {
    std::vector<NSExtensionItemPtr> kept;
    for (auto& item : items) {
        if (item) {
            kept.push_back(std::move(item));
        }
    }
    const bool handed = endRequest(std::move(kept), {});
    if (completionHandler) {
        dispatch_async(dispatch_get_main_queue(), [completionHandler = std::move(completionHandler),
                                                   handed] { completionHandler(handed); });
    }
}

void NSExtensionContext::cancelRequestWithError(const NSErrorPtr& error) {
    endRequest({}, error ? error : NSError::errorWithDomain(NSPlatformErrorDomain, 3072));
}

// --- Context classes by name.

namespace {

struct ContextClassTable {
    std::mutex mutex;
    // std::map keeps the addresses of its values stable across insertions.
    std::map<QString, std::unique_ptr<NSExtensionContextClass>> classes;
};

ContextClassTable& contextClassTable() {
    static ContextClassTable* table = [] {
        auto* t = new ContextClassTable;
        auto base = std::make_unique<NSExtensionContextClass>();
        base->alloc = [] {
            return std::make_shared<NSExtensionContext>();
        };
        t->classes.emplace(QStringLiteral("NSExtensionContext"), std::move(base));
        return t;
    }();
    return *table;
}

}  // namespace

void NSExtensionRegisterContextClass(const QString& className, NSExtensionContextClass cls) {
    if (className.isEmpty() || !cls.alloc) {
        return;
    }
    auto& table = contextClassTable();
    std::lock_guard lock(table.mutex);
    auto it = table.classes.find(className);
    if (it != table.classes.end()) {
        *it->second = std::move(cls);  // same address: earlier lookups stay valid
    } else {
        table.classes.emplace(className, std::make_unique<NSExtensionContextClass>(std::move(cls)));
    }
}

const NSExtensionContextClass* NSExtensionLookupContextClass(const QString& className) {
    auto& table = contextClassTable();
    std::lock_guard lock(table.mutex);
    auto it = table.classes.find(className);
    return it == table.classes.end() ? nullptr : it->second.get();
}

// --- The vendor.

std::shared_ptr<_NSExtensionContextVendor>
_NSExtensionContextVendor::_sharedExtensionContextVendor() {
    static const auto vendor = std::make_shared<_NSExtensionContextVendor>();
    return vendor;
}

std::shared_ptr<NSExtensionContext> _NSExtensionContextVendor::_extensionContextForUUID(
    const QUuid& uuid) const {
    std::lock_guard lock(mutex_);
    for (const auto& context : contexts_) {
        if (context->_UUID() == uuid) {
            return context;
        }
    }
    return {};
}

void _NSExtensionContextVendor::_setExtensionContext(
    const std::shared_ptr<NSExtensionContext>& context) {
    if (!context) {
        return;
    }
    std::lock_guard lock(mutex_);
    for (auto& existing : contexts_) {
        if (existing->_UUID() == context->_UUID()) {
            existing = context;
            return;
        }
    }
    contexts_.push_back(context);
}

void _NSExtensionContextVendor::_removeExtensionContext(const QUuid& uuid) {
    std::lock_guard lock(mutex_);
    std::erase_if(contexts_, [&uuid](const auto& c) { return c->_UUID() == uuid; });
}
