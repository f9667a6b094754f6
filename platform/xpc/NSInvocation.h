// A message as a value: a selector, its arguments and the object it is sent to. Connections hand
// every incoming message (a call on the exported object, or a reply for a reply block) to their
// delegate as an invocation, which the delegate invokes.
#pragma once

#include <QString>
#include <QVariantList>
#include <functional>
#include <memory>

#include "platform/xpc/NSXPCValue.h"

class NSInvocation;

// Anything an invocation can be sent to: an exported object, a reply block, or NSNull.
class NSXPCInvocationTarget {
public:
    virtual ~NSXPCInvocationTarget() = default;
    // Performs `selector` with `arguments` (a reply block's selector is the request's own; a call
    // whose method has a reply block carries the block, an NSXPCBlock, as its last argument).
    virtual void performSelector(const QString& selector, const QVariantList& arguments) = 0;
};

// The null object: every message to it is ignored.
class NSNull final : public NSXPCInvocationTarget {
public:
    static std::shared_ptr<NSNull> null();
    void performSelector(const QString&, const QVariantList&) override {}
};

// A reply block as an invocation target.
class NSXPCBlockTarget final : public NSXPCInvocationTarget {
public:
    explicit NSXPCBlockTarget(NSXPCBlock block) : block_(std::move(block)) {}
    void performSelector(const QString&, const QVariantList& arguments) override {
        if (block_) {
            block_(arguments);
        }
    }

private:
    NSXPCBlock block_;
};

// An exported object made of one function that receives every message (selector, arguments).
class NSXPCFunctionTarget final : public NSXPCInvocationTarget {
public:
    using Perform = std::function<void(const QString& selector, const QVariantList& arguments)>;
    explicit NSXPCFunctionTarget(Perform perform) : perform_(std::move(perform)) {}
    void performSelector(const QString& selector, const QVariantList& arguments) override {
        if (perform_) {
            perform_(selector, arguments);
        }
    }

private:
    Perform perform_;
};

class NSInvocation {
public:
    NSInvocation(QString selector, QVariantList arguments,
                 std::shared_ptr<NSXPCInvocationTarget> target);

    const QString& selector() const { return selector_; }
    const QVariantList& arguments() const { return arguments_; }
    QVariant getArgument(qsizetype index) const {
        return index >= 0 && index < arguments_.size() ? arguments_[index] : QVariant();
    }

    const std::shared_ptr<NSXPCInvocationTarget>& target() const { return target_; }
    void setTarget(std::shared_ptr<NSXPCInvocationTarget> target) { target_ = std::move(target); }

    // Keeps the arguments for the invocation's own life (they are owned copies from then on).
    void retainArguments();
    bool argumentsRetained() const { return argumentsRetained_; }

    // Sends the message to the target (nothing happens without one).
    void invoke();

private:
    QString selector_;
    QVariantList arguments_;
    std::shared_ptr<NSXPCInvocationTarget> target_;
    bool argumentsRetained_ = false;
};
