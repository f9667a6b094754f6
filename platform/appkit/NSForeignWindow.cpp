#include "platform/appkit/NSForeignWindow.h"

#include <qpa/qplatformnativeinterface.h>
#include <wayland-client.h>

#include <QEvent>
#include <QGuiApplication>
#include <QPlatformSurfaceEvent>
#include <QWindow>
#include <cstring>

#include "xdg-foreign-unstable-v2-client-protocol.h"

namespace platform::appkit {

namespace {

// The compositor's xdg-foreign globals, bound once on Qt's connection through a queue of ours.
struct Globals {
    wl_display* display = nullptr;
    wl_event_queue* queue = nullptr;
    zxdg_exporter_v2* exporter = nullptr;
    zxdg_importer_v2* importer = nullptr;
};

void onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t) {
    auto* globals = static_cast<Globals*>(data);
    if (std::strcmp(interface, zxdg_exporter_v2_interface.name) == 0 && !globals->exporter) {
        globals->exporter = static_cast<zxdg_exporter_v2*>(
            wl_registry_bind(registry, name, &zxdg_exporter_v2_interface, 1));
    } else if (std::strcmp(interface, zxdg_importer_v2_interface.name) == 0 && !globals->importer) {
        globals->importer = static_cast<zxdg_importer_v2*>(
            wl_registry_bind(registry, name, &zxdg_importer_v2_interface, 1));
    }
}

void onGlobalRemoved(void*, wl_registry*, uint32_t) {}

// Kept for the life of the process: they go with the connection.
Globals bindGlobals() {
    Globals globals;
    auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (app == nullptr || !QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) {
        return globals;
    }
    globals.display = static_cast<wl_display*>(
        QGuiApplication::platformNativeInterface()->nativeResourceForIntegration("wl_display"));
    if (globals.display == nullptr) {
        return globals;
    }
    globals.queue = wl_display_create_queue(globals.display);
    // The registry, and so everything bound through it, delivers its events to our queue.
    auto* wrapper = static_cast<wl_display*>(wl_proxy_create_wrapper(globals.display));
    wl_proxy_set_queue(reinterpret_cast<wl_proxy*>(wrapper), globals.queue);
    wl_registry* registry = wl_display_get_registry(wrapper);
    wl_proxy_wrapper_destroy(wrapper);
    static const wl_registry_listener listener = {onGlobal, onGlobalRemoved};
    wl_registry_add_listener(registry, &listener, &globals);
    wl_display_roundtrip_queue(globals.display, globals.queue);
    wl_registry_destroy(registry);
    return globals;
}

const Globals& globals() {
    static const Globals bound = bindGlobals();
    return bound;
}

// One window's xdg-foreign objects: its export (with the handle the compositor gave it) and its
// import of a parent. They are destroyed when the window's surface is, while the connection
// still lives.
class ForeignObjects : public QObject {
public:
    explicit ForeignObjects(QWindow* window) : QObject(window) {
        setObjectName(QStringLiteral("NSForeignWindow"));
        window->installEventFilter(this);
    }
    ~ForeignObjects() override { release(); }

    static ForeignObjects* of(QWindow* window) {
        auto* objects = window->findChild<ForeignObjects*>(QStringLiteral("NSForeignWindow"),
                                                           Qt::FindDirectChildrenOnly);
        return objects != nullptr ? objects : new ForeignObjects(window);
    }

    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::PlatformSurface &&
            static_cast<QPlatformSurfaceEvent*>(event)->surfaceEventType() ==
                QPlatformSurfaceEvent::SurfaceAboutToBeDestroyed) {
            release();
        }
        return false;
    }

    void releaseExport() {
        if (exported != nullptr) {
            zxdg_exported_v2_destroy(exported);
        }
        exported = nullptr;
        exportedSurface = nullptr;
        handle.clear();
    }
    void releaseImport() {
        if (imported != nullptr) {
            zxdg_imported_v2_destroy(imported);
        }
        imported = nullptr;
        importGone = false;
    }
    void release() {
        releaseExport();
        releaseImport();
    }

    zxdg_exported_v2* exported = nullptr;
    wl_surface* exportedSurface = nullptr;
    QString handle;
    zxdg_imported_v2* imported = nullptr;
    bool importGone = false;
};

bool fail(QString* why, const QString& reason) {
    if (why != nullptr) {
        *why = reason;
    }
    return false;
}

// The window's surface while it is a shown top-level of the compositor's; null (and `why`)
// otherwise.
wl_surface* toplevelSurface(QWindow* window, QString* why) {
    if (window == nullptr || !window->isVisible()) {
        fail(why, QStringLiteral("the window is not shown"));
        return nullptr;
    }
    QPlatformNativeInterface* native = QGuiApplication::platformNativeInterface();
    auto* surface = static_cast<wl_surface*>(native->nativeResourceForWindow("surface", window));
    if (surface == nullptr || native->nativeResourceForWindow("xdg_toplevel", window) == nullptr) {
        fail(why, QStringLiteral("the window is not a top-level window of the compositor's"));
        return nullptr;
    }
    return surface;
}

const QString kNotOffered = QStringLiteral("the compositor offers no xdg-foreign");
const QString kBroken = QStringLiteral("the connection to the compositor broke");

}  // namespace

bool foreignWindowsOffered() {
    return globals().exporter != nullptr && globals().importer != nullptr;
}

QString exportForeignWindow(QWindow* window, QString* why) {
    const Globals& g = globals();
    if (g.exporter == nullptr) {
        fail(why, kNotOffered);
        return {};
    }
    wl_surface* surface = toplevelSurface(window, why);
    if (surface == nullptr) {
        return {};
    }
    ForeignObjects* objects = ForeignObjects::of(window);
    if (objects->exported != nullptr && objects->exportedSurface == surface &&
        !objects->handle.isEmpty()) {
        return objects->handle;
    }
    objects->releaseExport();
    objects->exported = zxdg_exporter_v2_export_toplevel(g.exporter, surface);
    objects->exportedSurface = surface;
    static const zxdg_exported_v2_listener listener = {
        [](void* data, zxdg_exported_v2*, const char* handle) {
            static_cast<ForeignObjects*>(data)->handle = QString::fromUtf8(handle);
        }};
    zxdg_exported_v2_add_listener(objects->exported, &listener, objects);
    if (wl_display_roundtrip_queue(g.display, g.queue) < 0) {
        fail(why, kBroken);
        return {};
    }
    if (objects->handle.isEmpty()) {
        objects->releaseExport();
        fail(why, QStringLiteral("the compositor gave the window no handle"));
    }
    return objects->handle;
}

bool setForeignParent(QWindow* window, const QString& handle, QString* why) {
    const Globals& g = globals();
    if (g.importer == nullptr) {
        return fail(why, kNotOffered);
    }
    wl_surface* surface = toplevelSurface(window, why);
    if (surface == nullptr) {
        return false;
    }
    ForeignObjects* objects = ForeignObjects::of(window);
    objects->releaseImport();
    objects->imported = zxdg_importer_v2_import_toplevel(g.importer, handle.toUtf8().constData());
    static const zxdg_imported_v2_listener listener = {[](void* data, zxdg_imported_v2*) {
        static_cast<ForeignObjects*>(data)->importGone = true;
    }};
    zxdg_imported_v2_add_listener(objects->imported, &listener, objects);
    // A handle that names no window is answered with "destroyed" at once.
    if (wl_display_roundtrip_queue(g.display, g.queue) < 0) {
        return fail(why, kBroken);
    }
    if (objects->importGone) {
        objects->releaseImport();
        return fail(why, QStringLiteral("no window has the handle \"%1\"").arg(handle));
    }
    zxdg_imported_v2_set_parent_of(objects->imported, surface);
    return wl_display_flush(g.display) >= 0 || fail(why, kBroken);
}

}  // namespace platform::appkit
