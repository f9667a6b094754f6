// One environment variable set (or, with no value, unset) while the object lives; the earlier
// state comes back when it goes.
#pragma once

#include <QByteArray>
#include <cstdlib>
#include <optional>

namespace lumaro::test {

class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<QByteArray> value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = QByteArray(old);
        }
        set(value);
    }
    ~ScopedEnv() { set(old_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    void set(const std::optional<QByteArray>& value) const {
        if (value) {
            ::setenv(name_, value->constData(), 1);
        } else {
            ::unsetenv(name_);
        }
    }
    const char* name_;
    std::optional<QByteArray> old_;
};

}  // namespace lumaro::test
