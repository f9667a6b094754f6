// A QObject that runs a function on its own thread once for each wake(), which any thread may
// call. The wake-ups travel through Qt's event queue, out of the thread sanitizer's sight, so each
// is marked as a hand-over: what the waking thread wrote before wake() is seen by the function.
#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <functional>
#include <utility>

#include "platform/dispatch/handover.h"

namespace platform::dispatch {

// No Q_OBJECT: Qt's own metaObject() is not instrumented code, and would race with our
// constructors in the thread sanitizer's eyes.
class Waker : public QObject {
public:
    explicit Waker(std::function<void()> onWake) : onWake_(std::move(onWake)) {}

    void wake() {
        auto* event = new QEvent(QEvent::User);
        handOver(this);
        QCoreApplication::postEvent(this, event);
    }
    bool event(QEvent* event) override {
        takeOver(this);
        if (event->type() != QEvent::User) {
            return QObject::event(event);
        }
        onWake_();
        return true;
    }

private:
    const std::function<void()> onWake_;
};

}  // namespace platform::dispatch
