// The example streaming service's setup view: reads the host's application information, shows a
// small form (service name, stream title, "Start", "Cancel") and completes the request with the
// four setup-completion items, or with none when cancelled.
#pragma once

#include <QImage>
#include <QString>
#include <QVariantMap>

#include "platform/appkit/NSViewController.h"

class QLineEdit;

class ExampleSetupViewController : public NSServiceViewController {
public:
    // How the controller answers without a user.
    enum class Mode {
        Interactive,  // waits for "Start" or "Cancel"
        Complete,     // completes with the four items
        Cancel,       // completes with no items
        FailItem,     // completes with the configuration item carried by a non-data attachment
        Crash,        // aborts in the middle of the request
    };
    // When the automatic answer is given: once the view is shown to the host, or once the
    // host's information has been read.
    enum class ActWhen { Shown, Loaded };

    static void configure(Mode mode, ActWhen when, QString serviceIdentifier);
    // An interactive form presses "Start" by itself once `path` exists (a test's or a demo's
    // stand-in for the user, who takes a look at the form first). Empty: never.
    static void startWhenFileExists(QString path);
    static bool modeFromString(const QString& text, Mode* mode);
    // Registers the class under its own name and the example manifests' class names.
    static void registerClass();

    void loadView() override;
    void viewDidLoad() override;
    void viewDidAppear() override;

    // The user's answers (also the automation's).
    void start();
    void cancel();

    const QString& hostAppName() const { return hostAppName_; }
    const QString& hostBundleID() const { return hostBundleID_; }

private:
    void hostInfoLoaded(const QVariantMap& info);
    void actIfDue(ActWhen moment);
    void startIfTold();

    QString hostAppName_;
    QString hostBundleID_;
    QImage hostIcon_;
    bool hostInfoRead_ = false;
    bool shown_ = false;
    bool answered_ = false;
    QLineEdit* serviceName_ = nullptr;
    QLineEdit* streamTitle_ = nullptr;
};
