// The operations that run on the global queues: single removals, moves and the prefix delete.
#include <QCoreApplication>
#include <QFileInfo>
#include <QThread>
#include <atomic>
#include <mutex>
#include <set>

#include "platform/dispatch/dispatch.h"
#include "tests/filestore/FileStoreFixture.h"

using namespace LMExtensions;

namespace lumaro::test {
namespace {

std::string currentQueue() {
    const bool main = QThread::currentThread() == QCoreApplication::instance()->thread();
    return main ? "main thread" : dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL);
}

// What a completion saw: its error and where it ran.
struct Completion {
    std::atomic<bool> done{false};
    NSErrorPtr error;
    std::string queue;

    LMFileCompletion handler() {
        return [this](NSErrorPtr e) {
            error = std::move(e);
            queue = currentQueue();
            done.store(true, std::memory_order_release);
        };
    }
    bool wait() {
        return platform::dispatch::runMainLoopUntil([this] { return done.load(); }, 10'000);
    }
};

// The real file system, except that removals of chosen names fail; records every removal.
class FailingRemovals : public NSFileManager {
public:
    explicit FailingRemovals(std::set<QString> failing = {}) : failing_(std::move(failing)) {}
    bool removeItemAtPath(const QString& path, NSErrorPtr* error) override {
        std::lock_guard lock(mutex_);
        removed_.insert(QFileInfo(path).fileName());
        queues_.insert(currentQueue());
        if (failing_.count(QFileInfo(path).fileName()) == 0) {
            return NSFileManager::removeItemAtPath(path, error);
        }
        lastFailure_ = *error = NSError::errorWithDomain(NSPlatformErrorDomain, 513);
        return false;
    }
    std::set<QString> removed_;
    std::set<std::string> queues_;
    NSErrorPtr lastFailure_;
    std::mutex mutex_;

private:
    const std::set<QString> failing_;
};

using Async = FileStoreTest;

TEST_F(Async, RemoveRunsInTheBackgroundQuietAboutMissingFilesAndReportsFailures) {
    makeWorkDir();
    const QString file = writeEntry(QStringLiteral("ClipRecording_1.mp4"), 10);
    Completion removed, missing, failed;
    _srRemoveFile(fm_, QUrl::fromLocalFile(file), removed.handler());
    ASSERT_TRUE(removed.wait());
    _srRemoveFile(fm_, QUrl::fromLocalFile(file), missing.handler());
    ASSERT_TRUE(missing.wait());
    EXPECT_FALSE(removed.error || missing.error || exists(file));
    EXPECT_EQ(removed.queue, "global.background");
    EXPECT_EQ(missing.queue, "global.background");
    EXPECT_TRUE(log_.texts().empty());

    const QString stuck = writeEntry(QStringLiteral("stuck.mp4"), 10);
    auto receiver = std::make_shared<FailingRemovals>(std::set{QStringLiteral("stuck.mp4")});
    _srRemoveFile(receiver, QUrl::fromLocalFile(stuck), failed.handler());
    receiver.reset();  // the operation keeps its receiver alive
    ASSERT_TRUE(failed.wait());
    ASSERT_TRUE(failed.error);
    EXPECT_EQ(failed.error->code(), 513);
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "_lmRemoveFile error: 513");
    EXPECT_EQ(records[0].type, OS_LOG_TYPE_ERROR);
}

TEST_F(Async, MoveReplacesTheDestinationAndLogsAFailureByItsErrorReference) {
    makeWorkDir();
    const QString from = writeEntry(QStringLiteral("ScreenRecording_new.mp4"), 30);
    const QString to = writeEntry(QStringLiteral("Café_kept.mp4"), 5);
    Completion moved, failed;
    _srMoveFileFromURL(fm_, QUrl::fromLocalFile(from), QUrl::fromLocalFile(to), moved.handler());
    ASSERT_TRUE(moved.wait());
    EXPECT_FALSE(moved.error);
    EXPECT_EQ(moved.queue, "global.default");
    EXPECT_FALSE(exists(from));
    EXPECT_EQ(QFileInfo(to).size(), 30);
    EXPECT_TRUE(log_.texts().empty());

    // A missing source: the destination is already gone when the move fails.
    _srMoveFileFromURL(fm_, QUrl::fromLocalFile(from), QUrl::fromLocalFile(to), failed.handler());
    ASSERT_TRUE(failed.wait());
    ASSERT_TRUE(failed.error);
    EXPECT_EQ(failed.error->code(), NSFileNoSuchFileError);
    EXPECT_FALSE(exists(to));
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text,
              "_lmMoveFileFromURL error: " + std::to_string(failed.error->narrowedReference()));
    EXPECT_EQ(records[0].type, OS_LOG_TYPE_ERROR);
}

TEST_F(Async, PrefixDeleteIgnoresCaseAndDiacriticsOnTheDefaultQueue) {
    makeWorkDir();
    const std::set<QString> matching = {QStringLiteral("ClipRecording_11-15-2026 23-47-20.mp4"),
                                        QStringLiteral("CLIPPED"), QStringLiteral("Café_1.mp4"),
                                        QString::fromUtf8("CAFE\xCC\x81_decomposed.mp4")};
    const QStringList others = {QStringLiteral("ScreenRecording_1.mp4"),
                                QStringLiteral("my clip.mp4"), QStringLiteral("caf-e.mp4")};
    for (const QString& name : others + QStringList(matching.begin(), matching.end())) {
        writeEntry(name, 1);
    }
    auto receiver = std::make_shared<FailingRemovals>();
    _srDeleteFilesWithPrefix(receiver, QStringLiteral("clip"));
    _srDeleteFilesWithPrefix(receiver, QStringLiteral("cafe_"));  // past the accent
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] {
            return std::none_of(matching.begin(), matching.end(),
                                [&](const QString& n) { return exists(entry(n)); });
        },
        10'000));
    std::lock_guard lock(receiver->mutex_);
    EXPECT_EQ(receiver->removed_, matching);
    EXPECT_EQ(receiver->queues_, std::set<std::string>{"global.default"});
    for (const QString& name : others) {
        EXPECT_TRUE(exists(entry(name))) << name.toStdString();
    }
    EXPECT_TRUE(log_.texts().empty());
}

TEST_F(Async, PrefixDeleteReportsThePreviousErrorBeforeEachLaterRemoval) {
    makeWorkDir();
    for (const char* name : {"Clip_a", "Clip_b", "Clip_c"}) {
        writeEntry(QString::fromLatin1(name), 1);
    }
    // The entry listed first fails; the two after it are each preceded by its report.
    const QStringList listing = fm_->contentsOfDirectoryAtPath(workDir_, nullptr);
    ASSERT_EQ(listing.size(), 3);
    auto receiver = std::make_shared<FailingRemovals>(std::set{listing[0]});
    _srDeleteFilesWithPrefix(receiver, QStringLiteral("CLIP_"));
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] { return log_.texts().size() == 2 && !exists(entry(listing[2])); }, 10'000));
    std::lock_guard lock(receiver->mutex_);
    ASSERT_TRUE(receiver->lastFailure_);
    const std::string line = "_lmDeleteFilesWithPrefix error: " +
                             std::to_string(receiver->lastFailure_->narrowedReference());
    EXPECT_EQ(log_.texts(), (std::vector<std::string>{line, line}));
    EXPECT_TRUE(exists(entry(listing[0])));
}

}  // namespace
}  // namespace lumaro::test
