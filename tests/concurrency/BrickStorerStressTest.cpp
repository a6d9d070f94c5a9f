#include "brick/chain/Brick.h"
#include "brick/chain/BrickStorer.h"

#include "support/BrickTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrick;
using brick::CBrickStorer;
using testsupport::Bytes;
using zo::CURI;
using zo::int64;
using zo::P;

constexpr int kBrickSize = 4096;
constexpr int kBrickCount = 40;
constexpr int kSteps = 400;
constexpr int kWaitMillis = 30000;

struct StressSetting {
    int maxBackgroundOps;
    bool withChild;
};

void PrintTo(const StressSetting& setting, std::ostream* out)
{
    *out << "at most " << setting.maxBackgroundOps << " saves, " << (setting.withChild ? "with" : "without")
         << " a child";
}

std::string settingName(const ::testing::TestParamInfo<StressSetting>& info)
{
    return "MaxOps" + std::to_string(info.param.maxBackgroundOps) + (info.param.withChild ? "WithChild" : "NoChild");
}

class BrickStorerStress : public ::testing::TestWithParam<StressSetting> {
protected:
    BrickStorerStress()
        : fs(new zo::CMemoryFileSystem(3)), header(testsupport::makeBrickHeader(kBrickSize, 2, 16)),
          key(testsupport::makeBrickKey("aes256cbc")), random(GetParam().maxBackgroundOps * 2 + GetParam().withChild)
    {}

    P<CBrick> makeBrick(const char* disk, const char* child, std::vector<const char*> parents, int maxOps)
    {
        return testsupport::makeBrickOver(fs.get(), header, key, maxOps, disk, child, parents);
    }

    Bytes readWhole(CBrick& object, int64 index)
    {
        object.seek(index, 0);
        Bytes bytes(kBrickSize);
        EXPECT_EQ(object.readLaxInsideBrick(bytes.getData(), kBrickSize), kBrickSize);
        return bytes;
    }

    int pick(int from, int to) { return std::uniform_int_distribution<int>(from, to)(random); }

    // Random bytes, all zero when `zero`.
    Bytes someBytes(int size, bool zero)
    {
        return zero ? testsupport::zeroBytes(size) : testsupport::patternBytes(size, static_cast<unsigned>(random()));
    }

    P<zo::CMemoryFileSystem> fs;
    brick::CBrickDiskHeader header;
    testsupport::Key key;
    std::mt19937 random;
};

TEST_P(BrickStorerStress, EveryBrickReadsBackAsLastWrittenAndTheChildKeepsTheOldOnes)
{
    const StressSetting setting = GetParam();
    fs->createFolder(CURI("/disk"), 0x1ff);
    fs->createFolder(CURI("/child"), 0x1ff);

    // What the disk holds before the run: some bricks written, the rest never.
    std::map<int64, Bytes> model;
    {
        const P<CBrick> seeder = makeBrick("/disk", "", {}, 8);
        for (int64 index = 0; index < kBrickCount; ++index) {
            Bytes content = index % 3 == 0 ? someBytes(kBrickSize, false) : testsupport::zeroBytes(kBrickSize);
            if (index % 3 == 0) {
                seeder->seek(index, 0);
                ASSERT_EQ(seeder->writeLaxInsideBrick(content.getData(), kBrickSize), kBrickSize);
            }
            model.emplace(index, std::move(content));
        }
        seeder->backgroundSaveChanges();
        ASSERT_TRUE(seeder->waitUntilBackgroundSavesDone(kWaitMillis));
        ASSERT_FALSE(seeder->haveBackgroundErrors());
    }
    const std::map<int64, Bytes> before = model;

    fs->setCompletionDelay(0, 3);
    {
        const P<CBrick> object = makeBrick("/disk", setting.withChild ? "/child" : "", {}, setting.maxBackgroundOps);
        for (int step = 0; step < kSteps; ++step) {
            const int64 index = pick(0, kBrickCount - 1);
            Bytes& expected = model.at(index);
            switch (pick(0, 4)) {
            case 0: { // a whole new brick, now and then all zero
                const Bytes content = someBytes(kBrickSize, pick(0, 3) == 0);
                object->seek(index, 0);
                ASSERT_EQ(object->writeLaxInsideBrick(content.getData(), kBrickSize), kBrickSize);
                expected = content;
                break;
            }
            case 1:
            case 2: { // part of a brick, zeros or not
                const int position = pick(0, kBrickSize - 1);
                const int size = pick(1, kBrickSize - position);
                const Bytes content = someBytes(size, pick(0, 1) == 0);
                object->seek(index, position);
                ASSERT_EQ(object->writeLaxInsideBrick(content.getData(), size), size);
                std::memcpy(expected.getData() + position, content.getData(), static_cast<size_t>(size));
                break;
            }
            default: // reading, perhaps while the brick's save is in flight
                ASSERT_TRUE(testsupport::sameBytes(readWhole(*object, index), expected)) << "brick " << index;
            }
        }
        object->backgroundSaveChanges();
        ASSERT_TRUE(object->waitUntilBackgroundSavesDone(kWaitMillis));
        EXPECT_FALSE(object->haveBackgroundErrors());
    }
    fs->waitUntilIdle();
    fs->setCompletionDelay(0, 0);

    const P<CBrick> reader = makeBrick("/disk", "", {}, 1);
    for (const auto& [index, content] : model)
        EXPECT_TRUE(testsupport::sameBytes(readWhole(*reader, index), content)) << "brick " << index;

    if (setting.withChild) {
        // The child reads through to this disk for the bricks it lacks.
        const P<CBrick> childView = makeBrick("/child", "", {"/disk"}, 1);
        for (const auto& [index, content] : before)
            EXPECT_TRUE(testsupport::sameBytes(readWhole(*childView, index), content)) << "child brick " << index;
    } else {
        EXPECT_FALSE(fs->folderExists(CURI("/child/bricks")));
    }
}

INSTANTIATE_TEST_SUITE_P(Settings, BrickStorerStress,
                         ::testing::Values(StressSetting{1, false}, StressSetting{2, false}, StressSetting{8, false},
                                           StressSetting{1, true}, StressSetting{2, true}, StressSetting{8, true}),
                         settingName);

TEST(BrickStorerStressProgress, ProgressCanBeReadWhileManyStorersRun)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(4));
    fs->createFolder(CURI("/disk"), 0x1ff);
    fs->createFolder(CURI("/child"), 0x1ff);
    fs->setCompletionDelay(0, 2);
    const auto header = testsupport::makeBrickHeader(kBrickSize, 2, 16);
    const auto key = testsupport::makeBrickKey("aes256cbc");
    const P<Bytes> prepared =
        testsupport::countedCopy(testsupport::prepareBrick(header, key, testsupport::patternBytes(kBrickSize, 60)));
    const P<Bytes> zeroBrick =
        testsupport::countedCopy(testsupport::prepareBrick(header, key, testsupport::zeroBytes(kBrickSize)));

    std::vector<P<CBrickStorer>> storers;
    std::vector<P<testsupport::CountingListener>> listeners;
    for (int i = 0; i < 64; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "bricks/a%02x/%02x.brick", (i / 16) % 16, i % 16);
        listeners.emplace_back(new testsupport::CountingListener());
        const bool withChild = i % 2 == 1;
        storers.push_back(CBrickStorer::start(fs.get(), CURI("/disk"), CURI(name), withChild ? CURI("/child") : CURI(),
                                              withChild ? CURI(name) : CURI(), i % 5 ? prepared.get() : nullptr,
                                              zeroBrick.get(), listeners.back().get()));
    }

    std::atomic<bool> outOfRange{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            for (bool allDone = false; !allDone;) {
                allDone = true;
                for (const P<CBrickStorer>& storer : storers) {
                    const bool done = storer->waitFinished(0);
                    const double progress = storer->getProgress();
                    const bool running = progress >= 0.0 && progress <= 0.99;
                    if (done ? progress != 1.0 : !(running || progress == 1.0))
                        outOfRange = true;
                    allDone = allDone && done;
                }
            }
        });
    }
    for (std::thread& reader : readers)
        reader.join();
    fs->waitUntilIdle();

    EXPECT_FALSE(outOfRange.load());
    for (size_t i = 0; i < storers.size(); ++i) {
        EXPECT_EQ(storers[i]->getProgress(), 1.0);
        EXPECT_EQ(storers[i]->getError(), nullptr) << i;
        EXPECT_EQ(listeners[i]->getCallCount(), 1) << i;
    }
}

} // namespace
