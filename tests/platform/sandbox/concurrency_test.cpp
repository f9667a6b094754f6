#include <gtest/gtest.h>

#include <QDir>
#include <atomic>
#include <thread>
#include <vector>

#include "platform/sandbox/token_key.h"
#include "tests/platform/sandbox/SandboxFixture.h"

using lumaro::test::fs;
using lumaro::test::SandboxTest;

// Threads racing to create the key stand in for processes doing so: the creation takes no lock
// of this process, only the file system's exclusive create and link. Half of them issue tokens
// meanwhile. (Grants of user selections have no caller that races them.)
TEST_F(SandboxTest, RacingCreatorsAllEndWithTheOneKeyOnDisk) {
    QDir().mkpath(support_);
    constexpr int kRounds = 20;
    constexpr int kThreads = 4;
    for (int round = 0; round < kRounds; ++round) {
        QDir(runtime_.file("lumaro")).removeRecursively();
        std::atomic<int> ready{0};
        std::vector<QByteArray> keys(kThreads);
        std::vector<std::string> tokens(kThreads);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                ready.fetch_add(1);
                while (ready.load() < kThreads) {
                    std::this_thread::yield();
                }
                if (i % 2 == 0) {
                    keys[i] = platform::sandbox::loadTokenKey(true);
                } else {
                    tokens[i] = token(APP_SANDBOX_READ_WRITE, fs(support_));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        const QByteArray onDisk = platform::sandbox::loadTokenKey(false);
        ASSERT_EQ(onDisk.size(), platform::sandbox::kTokenKeySize);
        for (int i = 0; i < kThreads; ++i) {
            if (i % 2 == 0) {
                EXPECT_EQ(keys[i], onDisk) << "round " << round;
            } else {
                EXPECT_TRUE(platform::sandbox::verifyToken(tokens[i]).valid) << "round " << round;
            }
        }
        EXPECT_EQ(QDir(runtime_.file("lumaro"))
                      .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                  QStringList{QStringLiteral("sandbox-token.key")})
            << "no scratch file is left behind";
    }
}
