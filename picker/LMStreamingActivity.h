// One installed broadcast setup-UI extension as a menu entry: its display name, its containing
// application's icon, and, when chosen, a hand-off of itself to the delegate.
//
// The entry is an NSMenuItem that is its own target: its action casts the sender back to the
// activity and calls performAction. Its identifier is the extension's identifier, so that menu
// automation can choose it by that name. The delegate is held strongly on purpose: the picker
// controller keeps its activities and each activity keeps the controller, so both live until the
// controller drops its array.
#pragma once

#include <QImage>
#include <QString>
#include <QVariant>
#include <memory>

#include "platform/appkit/NSImage.h"
#include "platform/appkit/NSMenuItem.h"
#include "platform/extension/NSExtension.h"

class LMStreamingActivity;

// Implemented by whoever starts a chosen activity's setup UI.
class LMStreamingActivityDelegate {
public:
    virtual ~LMStreamingActivityDelegate() = default;
    // performActionWithStreamingActivity:
    virtual void performActionWithStreamingActivity(
        const std::shared_ptr<LMStreamingActivity>& activity) = 0;
};

// An empty marker class: declared beside the activity, never instantiated by the picker.
class LMStreamingActivityKey {};

class LMStreamingActivity : public NSMenuItem {
public:
    // initWithApplicationExtension:. The title is the extension's display name (nil when it has
    // none); the image is taken before the extension is stored, so it is the icon for no
    // application at all, and is not refreshed later.
    static std::shared_ptr<LMStreamingActivity> initWithApplicationExtension(
        const NSExtensionPtr& applicationExtension);

    ~LMStreamingActivity() override;

    // performAction:. The sender is ignored; the delegate, if any, receives this activity.
    void performAction(const QVariant& sender);

    // The extension's identifier.
    QString activityType() const;
    // The extension's CFBundleDisplayName; a null string when it has none.
    QString activityTitle() const;
    // The containing application's icon at 16 by 16 points, asked of the workspace on every call.
    std::shared_ptr<NSImage> activityImage() const;

    const NSExtensionPtr& applicationExtension() const { return applicationExtension_; }
    const std::shared_ptr<LMStreamingActivityDelegate>& delegate() const { return delegate_; }
    void setDelegate(std::shared_ptr<LMStreamingActivityDelegate> delegate);

private:
    explicit LMStreamingActivity(const QString& title);

    NSExtensionPtr applicationExtension_;
    std::shared_ptr<LMStreamingActivityDelegate> delegate_;
};
