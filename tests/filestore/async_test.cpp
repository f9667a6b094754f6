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

// What a completion saw: its error, its queue, and whether it ran on the main thread.
struct Completion {
    std::atomic<bool> done{false};
    NSErrorPtr error;
    std::string queue;
    bool onMainThread = true;

    LMFileCompletion handler() {
        return [this](NSErrorPtr e) {
            error = std::move(e);
            queue = dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL);
            onMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
            done.store(true, std::memory_order_release);
        };
    }
    bool wait() {
        return platform::dispatch::runMainLoopUntil(
            [this] { return done.load(std::memory_order_acquire); }, 10'000);
    }
};

// The real file system, except that chosen removals fail and every removal is recorded.
class RecordingFileManager : public NSFileManager {
public:
    bool removeItemAtPath(const QString& path, NSErrorPtr* error) override {
        const QString name = QFileInfo(path).fileName();
        std::lock_guard lock(mutex_);
        removed_.push_back(name);
        if (failing_.count(name) != 0) {
            if (error != nullptr) {
                *error = NSError::errorWithDomain(NSCocoaErrorDomain, NSFileWriteNoPermissionError);
                lastFailure_ = *error;
            }
            return false;
        }
        return NSFileManager::removeItemAtPath(path, error);
    }
    void failOn(const QString& name) {
        std::lock_guard lock(mutex_);
        failing_.insert(name);
    }
    std::vector<QString> removed() const {
        std::lock_guard lock(mutex_);
        return removed_;
    }
    NSErrorPtr lastFailure() const {
        std::lock_guard lock(mutex_);
        return lastFailure_;
    }

private:
    mutable std::mutex mutex_;
    std::set<QString> failing_;
    std::vector<QString> removed_;
    NSErrorPtr lastFailure_;
};

using Async = FileStoreTest;

TEST_F(Async, RemoveRunsInTheBackgroundAndIsQuietAboutMissingFiles) {
    makeWorkDir();
    const QString file = writeEntry(QStringLiteral("ClipRecording_1.mp4"), 10);
    Completion removed;
    _srRemoveFile(fm_, QUrl::fromLocalFile(file), removed.handler());
    ASSERT_TRUE(removed.wait());
    EXPECT_FALSE(removed.error);
    EXPECT_FALSE(exists(file));
    EXPECT_EQ(removed.queue, "global.background");
    EXPECT_FALSE(removed.onMainThread);

    Completion missing;
    _srRemoveFile(fm_, QUrl::fromLocalFile(file), missing.handler());
    ASSERT_TRUE(missing.wait());
    EXPECT_FALSE(missing.error);
    EXPECT_EQ(missing.queue, "global.background");
    EXPECT_TRUE(log_.texts().empty());

    // No completion at all is fine too.
    const QString other = writeEntry(QStringLiteral("other.mp4"), 1);
    _srRemoveFile(fm_, QUrl::fromLocalFile(other), {});
    EXPECT_TRUE(platform::dispatch::runMainLoopUntil([&] { return !exists(other); }, 10'000));
}

TEST_F(Async, AFailedRemoveLogsTheCodeAndHandsTheErrorOver) {
    makeWorkDir();
    const QString file = writeEntry(QStringLiteral("stuck.mp4"), 10);
    auto receiver = std::make_shared<RecordingFileManager>();
    receiver->failOn(QStringLiteral("stuck.mp4"));
    Completion done;
    _srRemoveFile(receiver, QUrl::fromLocalFile(file), done.handler());
    receiver.reset();  // the operation keeps its receiver alive
    ASSERT_TRUE(done.wait());
    ASSERT_TRUE(done.error);
    EXPECT_EQ(done.error->code(), NSFileWriteNoPermissionError);
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "_lmRemoveFile error: 513");
    EXPECT_EQ(records[0].type, OS_LOG_TYPE_ERROR);
    EXPECT_TRUE(exists(file));
}

TEST_F(Async, MoveReplacesTheDestinationOnTheDefaultQueue) {
    makeWorkDir();
    const QString from = writeEntry(QStringLiteral("ScreenRecording_new.mp4"), 30);
    const QString to = writeEntry(QStringLiteral("Café_kept.mp4"), 5);
    Completion moved;
    _srMoveFileFromURL(fm_, QUrl::fromLocalFile(from), QUrl::fromLocalFile(to), moved.handler());
    ASSERT_TRUE(moved.wait());
    EXPECT_FALSE(moved.error);
    EXPECT_EQ(moved.queue, "global.default");
    EXPECT_FALSE(moved.onMainThread);
    EXPECT_FALSE(exists(from));
    EXPECT_EQ(QFileInfo(to).size(), 30);
    EXPECT_TRUE(log_.texts().empty());
}

TEST_F(Async, AFailedMoveLogsTheErrorReferenceAndTheDestinationIsAlreadyGone) {
    makeWorkDir();
    const QString to = writeEntry(QStringLiteral("destination.mp4"), 5);
    Completion moved;
    _srMoveFileFromURL(fm_, QUrl::fromLocalFile(entry(QStringLiteral("missing.mp4"))),
                       QUrl::fromLocalFile(to), moved.handler());
    ASSERT_TRUE(moved.wait());
    ASSERT_TRUE(moved.error);
    EXPECT_EQ(moved.error->code(), NSFileNoSuchFileError);
    EXPECT_FALSE(exists(to));
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text,
              "_lmMoveFileFromURL error: " + std::to_string(moved.error->narrowedReference()));
    EXPECT_EQ(records[0].type, OS_LOG_TYPE_ERROR);
}

TEST_F(Async, PrefixDeleteIgnoresCaseAndDiacritics) {
    makeWorkDir();
    const QStringList matching = {QStringLiteral("ClipRecording_11-15-2026 23-47-20.mp4"),
                                  QStringLiteral("clip.mp4"), QStringLiteral("CLIPPED")};
    const QStringList accented = {QStringLiteral("Café_1.mp4"), QStringLiteral("CAFÉ 2.mp4"),
                                  QString::fromUtf8("cafe\xCC\x81-decomposed.mp4")};
    const QStringList others = {QStringLiteral("ScreenRecording_1.mp4"),
                                QStringLiteral("my clip.mp4"), QStringLiteral("caf-e.mp4")};
    for (const QString& name : matching + accented + others) {
        writeEntry(name, 1);
    }
    auto receiver = std::make_shared<RecordingFileManager>();
    auto gone = [&](const QStringList& names) {
        return std::all_of(names.begin(), names.end(),
                           [&](const QString& n) { return !exists(entry(n)); });
    };

    _srDeleteFilesWithPrefix(receiver, QStringLiteral("clip"));
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return gone(matching); }, 10'000));
    _srDeleteFilesWithPrefix(receiver, QStringLiteral("cafe"));
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return gone(accented); }, 10'000));

    const auto removed = receiver->removed();
    EXPECT_EQ(std::set<QString>(removed.begin(), removed.end()), [&] {
        std::set<QString> all;
        for (const QString& n : matching + accented) {
            all.insert(n);
        }
        return all;
    }());
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
    // Whichever entry the listing gives first fails; the others follow it.
    const QStringList listing = fm_->contentsOfDirectoryAtPath(workDir_, nullptr);
    ASSERT_EQ(listing.size(), 3);
    auto receiver = std::make_shared<RecordingFileManager>();
    receiver->failOn(listing[0]);

    _srDeleteFilesWithPrefix(receiver, QStringLiteral("CLIP_"));
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] { return !exists(entry(listing[1])) && !exists(entry(listing[2])); }, 10'000));
    EXPECT_TRUE(
        platform::dispatch::runMainLoopUntil([&] { return log_.texts().size() == 2; }, 10'000));
    const auto failure = receiver->lastFailure();
    ASSERT_TRUE(failure);
    const std::string line =
        "_lmDeleteFilesWithPrefix error: " + std::to_string(failure->narrowedReference());
    EXPECT_EQ(log_.texts(), (std::vector<std::string>{line, line}));
    EXPECT_TRUE(exists(entry(listing[0])));
}

}  // namespace
}  // namespace lumaro::test
