// A fixture with a throw-away HOME and runtime folder, the picker's entitlements and no
// user-selected paths; everything restored afterwards.
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <optional>
#include <string>

#include "platform/foundation/NSDate.h"
#include "platform/sandbox/entitlements.h"
#include "platform/sandbox/sandbox.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

namespace lumaro::test {

inline QVariantMap pickerEntitlements() {
    using namespace platform::sandbox;
    return {
        {kAppSandboxEntitlement, true},
        {kUserSelectedReadWriteEntitlement, true},
        {kHomeRelativeReadWriteEntitlement,
         QVariantList{QStringLiteral("/Library/Application Support/com.vantor.lumarod/")}},
    };
}

inline std::string fs(const QString& path) {
    return QFile::encodeName(path).toStdString();
}

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override { platform::sandbox::setEntitlementsForTesting(pickerEntitlements()); }
    void TearDown() override {
        platform::sandbox::resetEntitlementsForTesting();
        platform::sandbox::clearUserSelectedPathsForTesting();
        NSDate::setClockForTesting({});
    }

    static std::string token(const char* cls, const std::string& path) {
        char* raw = sandbox_extension_issue_file(cls, path.c_str(), SANDBOX_EXTENSION_DEFAULT);
        const std::string text = raw != nullptr ? raw : "";
        std::free(raw);
        return text;
    }
    // The issued token, verified; nullopt when none was issued.
    static std::optional<platform::sandbox::TokenCheck> issue(const char* cls,
                                                              const std::string& path) {
        const std::string text = token(cls, path);
        return text.empty() ? std::nullopt : std::optional(platform::sandbox::verifyToken(text));
    }

    TempDir home_;
    TempDir runtime_;
    ScopedEnv homeEnv_{"HOME", QFile::encodeName(home_.path())};
    ScopedEnv runtimeEnv_{"XDG_RUNTIME_DIR", QFile::encodeName(runtime_.path())};
    const QString support_ = home_.file("Library/Application Support/com.vantor.lumarod");
};

}  // namespace lumaro::test
