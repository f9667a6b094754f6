// The D-Bus contract: the installed introspection XML is what the protocol tables make, and every
// selector maps to a member and back.
#include <gtest/gtest.h>

#include <QFile>

#include "daemon/LMDaemonProtocol.h"
#include "daemon/LMDaemonRequestCatalogue.h"
#include "tests/support/TestBus.h"

namespace {

QString fileText(const QString& relative) {
    QFile file(lumaro::test::sourcePath(relative));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

TEST(DaemonContractTest, InstalledXmlMatchesTheProtocolTables) {
    EXPECT_EQ(fileText(QStringLiteral("daemon/dbus/com.vantor.lumarod.Daemon.xml")),
              LMIntrospectionDocument(NSXPCInterface(LMDaemonProtocol())));
    EXPECT_EQ(fileText(QStringLiteral("daemon/dbus/com.vantor.lumarod.Client.xml")),
              LMIntrospectionDocument(NSXPCInterface(LMClientProtocol())));
}

TEST(DaemonContractTest, ProtocolsHaveTheirMethodsAndMembersMapBack) {
    EXPECT_EQ(LMDaemonProtocol().methods.size(), 39u);
    EXPECT_EQ(LMClientProtocol().methods.size(), 15u);
    for (const auto* protocol : {&LMDaemonProtocol(), &LMClientProtocol()}) {
        for (const auto& m : protocol->methods) {
            const QString member = platform::xpc::memberForSelector(m.selector);
            EXPECT_EQ(platform::xpc::selectorForMember(member),
                      QString::fromLatin1(m.selector.data(), qsizetype(m.selector.size())));
            EXPECT_LE(member.size(), 255);
        }
    }
    EXPECT_EQ(platform::xpc::memberForSelector(
                  "setupBroadcastWithHostBundleID:broadcastExtensionBundleID:"
                  "broadcastConfigurationData:userInfo:handler:"),
              QStringLiteral("setupBroadcastWithHostBundleID_broadcastExtensionBundleID_"
                             "broadcastConfigurationData_userInfo_handler_"));
    EXPECT_EQ(platform::xpc::selectorForMember(QStringLiteral("a_0b_")), QStringLiteral("a_b:"));
    EXPECT_FALSE(platform::xpc::selectorForMember(QStringLiteral("a-b")).has_value());
    EXPECT_FALSE(platform::xpc::selectorForMember(QString()).has_value());
}

TEST(DaemonContractTest, EveryCatalogueRequestIsADaemonMethod) {
    const NSXPCInterface daemon(LMDaemonProtocol());
    ASSERT_EQ(LMDaemonRequestCatalogue().size(), 36u);
    for (const auto& row : LMDaemonRequestCatalogue()) {
        EXPECT_NE(daemon.methodForSelector(row.selector), nullptr) << row.selector;
        if (!row.tokenSelector.empty()) {
            EXPECT_TRUE(daemon.methodForSelector(row.tokenSelector)->optional);
        }
    }
}

}  // namespace
