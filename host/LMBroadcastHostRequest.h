// The host's side of a broadcast request, as an application makes it: the input items (the
// request's texts, sizes and menu point in the first item's user info, and the host-information
// item), a request to the picker view service through the extension runtime, the host interface
// offered on the request's auxiliary connection, and the outcome.
//
//     auto request = std::make_shared<LMBroadcastHostRequest>(options);
//     request->setHandlers({.arrival = ..., .outcome = ..., .pickerExited = ...});
//     if (!request->start(&error)) ...
//
// Every handler runs on the main queue, in the order the messages arrived. When the picker asks
// for the sheet and `showSheet` is on, the host asks for the picker's remote view, so that the
// picker's view (with the setup UI inside it) is shown in a window.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <QUuid>
#include <QVariantList>
#include <functional>
#include <memory>
#include <vector>

#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionItem.h"

class NSRemoteViewController;

struct LMBroadcastHostRequestOptions {
    // The first input item's user info.
    QString localizedBroadcastTitle = QStringLiteral("Broadcast %@ to");
    QString localizedNoService = QStringLiteral("No broadcast services are installed");
    QString localizedFindBroadcastApps = QStringLiteral("Find broadcast apps\u2026");
    double width = 400;
    double height = 300;
    double sourceX = 200;
    double sourceY = 200;
    // The host-information item. A null preferred extension, title or message is left out.
    QString appName = QStringLiteral("Lumaro Host");
    QString bundleID = QStringLiteral("com.vantor.lumaro.host");
    QByteArray iconData;  // the icon file's bytes; empty: no icon
    QString preferredExtension;
    QString notInstalledTitle;
    QString notInstalledMessage;
    // The view service asked for.
    QString pickerIdentifier = QStringLiteral("com.vantor.lumaro.broadcast-picker");
    // Whether to show the picker's view when it asks for the sheet.
    bool showSheet = false;
    // A host that is not a Prism app: no input items; the picker's view is asked for as soon as
    // the request has begun, with view-service parameters ("isPrismApp" "NO", the view's width
    // and height, the request's identifier).
    bool viewParametersOnly = false;
};

// extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:, as received.
struct LMBroadcastHostOutcome {
    QUrl launchURL;
    QUrl broadcastURL;
    QString extensionBundleID;
    bool cancelled = false;
    // {"launchURL": …, "broadcastURL": …, "extensionBundleID": …, "cancelled": …}, absent
    // values as null, on one line.
    QString toJson() const;
};

class LMBroadcastHostRequest : public std::enable_shared_from_this<LMBroadcastHostRequest> {
public:
    struct Handlers {
        // Every host message that arrives, with a readable form of its arguments.
        std::function<void(const QString& selector, const QString& arguments)> arrival;
        std::function<void(const LMBroadcastHostOutcome&)> outcome;
        // The picker ended (or could not start) before any outcome.
        std::function<void(const QString& why)> pickerExited;
        // The picker's remote view arrived, with the size the picker gave it.
        std::function<void(double width, double height)> viewArrived;
    };

    explicit LMBroadcastHostRequest(LMBroadcastHostRequestOptions options);
    ~LMBroadcastHostRequest();

    // The request's input items: the first carries the user info, the second is the titled
    // host-information item.
    static std::vector<NSExtensionItemPtr> inputItems(const LMBroadcastHostRequestOptions& options);

    void setHandlers(Handlers handlers);
    // Finds the picker through the registry and begins the request. False, with `error`, when
    // the picker is not installed; a request that cannot begin reaches pickerExited.
    bool start(QString* error);
    // Ends the picker's request (the picker and its setup UI are stopped).
    void stop();

    // What the host saw, in one clause, for a request that produced no outcome in time: the
    // picker exited or did not start, the setup UI was shown (the picker asked for the sheet),
    // or nothing was chosen.
    QString diagnosis() const;

    QUuid requestIdentifier() const { return requestIdentifier_; }
    bool sheetRequested() const { return sheetRequested_; }
    // The picker's remote view, once asked for.
    std::shared_ptr<NSRemoteViewController> sheetController() const { return sheet_; }

    // Called by the exported object, on the main queue.
    void received(const QString& selector, const QVariantList& arguments);

private:
    // Asks for the picker's remote view; `show` puts it in a window of this process.
    void requestPickerView(const QVariant& clientParameters, bool show);

    LMBroadcastHostRequestOptions options_;
    Handlers handlers_;
    NSExtensionPtr picker_;
    QUuid requestIdentifier_;
    bool finished_ = false;
    bool pickerGone_ = false;
    QString pickerGoneWhy_;
    bool sheetRequested_ = false;
    std::shared_ptr<NSRemoteViewController> sheet_;
};
