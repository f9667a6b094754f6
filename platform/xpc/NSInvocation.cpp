#include "platform/xpc/NSInvocation.h"

std::shared_ptr<NSNull> NSNull::null() {
    static const auto instance = std::make_shared<NSNull>();
    return instance;
}

NSInvocation::NSInvocation(QString selector, QVariantList arguments,
                           std::shared_ptr<NSXPCInvocationTarget> target)
    : selector_(std::move(selector)),
      arguments_(std::move(arguments)),
      target_(std::move(target)) {}

void NSInvocation::retainArguments() {
    if (!argumentsRetained_) {
        arguments_.detach();  // an owned copy, independent of the message it came from
        argumentsRetained_ = true;
    }
}

void NSInvocation::invoke() {
    if (auto target = target_) {  // the target may replace itself on the invocation meanwhile
        target->performSelector(selector_, arguments_);
    }
}
