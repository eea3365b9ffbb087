// Tests of the simulated host's storing side of a guest-to-host transfer: conflict
// policies, names that try to leave the folder, and transfers of several workers at once.
#include "hostsim/tree_sink.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "channel/communicator.h"
#include "channel/dnd_message.h"
#include "hostsim/host.h"
#include "support/private_root.h"
#include "support/temp_dir.h"
#include "transfer/records.h"
#include "transfer/transfer_job.h"
#include "transfer/tree_sender.h"

namespace {

using hostsim::SinkResult;
using qvxtest::read_file;
using qvxtest::TempDir;
using qvxtest::write_file;
namespace dnd = qvx::dnd;
namespace le = qvx::le;

using qvxtest::exists;

class TreeSinkTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
    void SetUp() override {
        ASSERT_TRUE(host.start());
        communicator = std::make_unique<qvx::CommonMacCommunicator>();
        ASSERT_NE(communicator->handle(), 0u);
    }

    qvx::DnDContext context(uint64_t worker) const {
        return {worker, communicator.get(), qvx::SendDnDCommand};
    }

    // A whole send job, closed by its 260 as the pool runs it.
    void run_send(uint64_t worker, std::vector<std::string> paths) {
        qvx::TransferJob job;
        job.direction = qvx::kDirectionSend;
        job.action = qvx::kActionSend;
        job.workerId = worker;
        job.paths = std::move(paths);
        qvx::RunTransferJob(job, context(worker));
    }

    hostsim::SinkOptions options(hostsim::ConflictPolicy policy) const {
        hostsim::SinkOptions o;
        o.folder = hostSide / "in";
        o.policy = policy;
        return o;
    }

    // Sends one record built by `build` for the item `name`; the reply's status, or
    // 0xFFFFFFFF when the exchange failed.
    uint32_t send_named(uint32_t command, std::u16string name, uint32_t attributes = 0,
                        std::u16string target = u"") {
        qvx::ItemInfo item;
        item.name = std::move(name);
        item.attributes = attributes;
        std::vector<uint8_t> out(dnd::kMessageSize, 0);
        if (command == dnd::kCmdSymlink) {
            EXPECT_TRUE(qvx::build_symlink(out, kWorker, item, target));
        } else {
            dnd::init_message(out.data(), out.size(), command, kWorker);
            le::put32(out.data(), dnd::kOffAttributes, attributes);
            le::put32(out.data(), dnd::kOffNameLength, static_cast<uint32_t>(item.name.size()));
            for (size_t i = 0; i < item.name.size(); ++i)
                le::put16(out.data(), dnd::kOffName + 2 * i, item.name[i]);
        }
        std::vector<uint8_t> reply(dnd::kMessageSize, 0);
        if (!qvx::SendDnDCommand(communicator.get(), out.data(), static_cast<uint32_t>(out.size()),
                                 reply.data(), dnd::kMessageSize))
            return 0xFFFFFFFF;
        return dnd::status(reply.data());
    }

    static constexpr uint64_t kWorker = 0x51CC;
    TempDir guest;
    TempDir hostSide;
    hostsim::Host host;
    std::unique_ptr<qvx::CommonMacCommunicator> communicator;
};

TEST_F(TreeSinkTest, ConflictPolicyReplacesSkipsOrStops) {
    write_file(guest / "top/new.txt", "new inside");
    write_file(guest / "file", "new");
    write_file(guest / "other", "other");
    // The host holds an older "top" and "file" each time.
    auto run = [&](const hostsim::SinkOptions& o) {
        std::filesystem::remove_all(hostSide / "in");
        write_file(hostSide / "in/top/old.txt", "old inside");
        write_file(hostSide / "in/file", "old");
        hostsim::TreeSink sink(host, o);
        run_send(kWorker, {guest / "top", guest / "file", guest / "other"});
        const auto r = sink.result(kWorker);
        EXPECT_TRUE(r);
        return r.value_or(SinkResult{});
    };

    SinkResult r = run(options(hostsim::ConflictPolicy::Replace));
    EXPECT_EQ(r.state, SinkResult::State::Done) << r.refusal;
    EXPECT_EQ(r.replaced, 2u);
    EXPECT_TRUE(r.totals_match());
    // The old folder went as a whole before the new one was made.
    EXPECT_FALSE(exists(hostSide / "in/top/old.txt"));
    EXPECT_EQ(read_file(hostSide / "in/top/new.txt"), "new inside");
    EXPECT_EQ(read_file(hostSide / "in/file"), "new");
    EXPECT_EQ(read_file(hostSide / "in/other"), "other");

    r = run(options(hostsim::ConflictPolicy::Skip));
    EXPECT_EQ(r.state, SinkResult::State::Done) << r.refusal;
    EXPECT_EQ(r.skipped, 2u);
    // The guest lowered its totals by what it skipped: only "other" is left.
    EXPECT_EQ(r.totalsMessages, 3u);
    EXPECT_EQ(r.announcedItems, 1u);
    EXPECT_TRUE(r.totals_match());
    EXPECT_EQ(read_file(hostSide / "in/top/old.txt"), "old inside");
    EXPECT_FALSE(exists(hostSide / "in/top/new.txt"));
    EXPECT_EQ(read_file(hostSide / "in/file"), "old");
    EXPECT_EQ(read_file(hostSide / "in/other"), "other");

    // A per-name answer overrides the policy: the folder is replaced, then stop.
    hostsim::SinkOptions o = options(hostsim::ConflictPolicy::Skip);
    o.onConflict = [](const std::string& name) { return name == "top" ? 101u : 9u; };
    EXPECT_EQ(run(o).state, SinkResult::State::Stopped);
    EXPECT_EQ(read_file(hostSide / "in/top/new.txt"), "new inside");
    EXPECT_EQ(read_file(hostSide / "in/file"), "old");
    EXPECT_FALSE(exists(hostSide / "in/other"));
    EXPECT_EQ(host.message_count(dnd::kCmdEnd), 3u);
}

TEST_F(TreeSinkTest, NamesNeverLeadOutsideTheFolder) {
    write_file(hostSide / "outside/keep", "keep");
    hostsim::TreeSink sink(host, options(hostsim::ConflictPolicy::Replace));
    sink.accept(kWorker);

    const std::u16string bad[] = {
        u"..",  u"../escape", u"a/../../escape",          u"/abs",  u"", u"a//b", u"./x",
        u"x/.", u"x/",        std::u16string(u"a\0b", 3), u"\xD800"};
    for (const std::u16string& name : bad) {
        SCOPED_TRACE(std::string(name.begin(), name.end()));
        EXPECT_EQ(send_named(dnd::kCmdItemHeader, name, qvx::kAttrDirectory),
                  hostsim::kSinkRefused);
        EXPECT_EQ(send_named(dnd::kCmdDataBegin, name), hostsim::kSinkRefused);
        EXPECT_EQ(send_named(dnd::kCmdSymlink, name, 0, u"x"), hostsim::kSinkRefused);
        EXPECT_EQ(send_named(dnd::kCmdRemoveItem, name), hostsim::kSinkRefused);
    }

    // A link the transfer made is stored as it came and never passed through.
    EXPECT_EQ(send_named(dnd::kCmdSymlink, u"L", 0, u"..\\outside"), 0u);
    EXPECT_EQ(send_named(dnd::kCmdItemHeader, u"L/x", qvx::kAttrDirectory), hostsim::kSinkRefused);
    EXPECT_EQ(send_named(dnd::kCmdDataBegin, u"L/y"), hostsim::kSinkRefused);
    EXPECT_EQ(send_named(dnd::kCmdSymlink, u"L/z", 0, u"x"), hostsim::kSinkRefused);
    EXPECT_EQ(send_named(dnd::kCmdRemoveItem, u"L/keep"), hostsim::kSinkRefused);
    // A name that exists is reported, not written through.
    EXPECT_EQ(send_named(dnd::kCmdItemHeader, u"L"), dnd::kStatusExists);
    EXPECT_EQ(send_named(dnd::kCmdDataBegin, u"L"), hostsim::kSinkRefused);
    // Removing the link removes the link only.
    EXPECT_EQ(send_named(dnd::kCmdRemoveItem, u"L"), 0u);
    EXPECT_EQ(send_named(dnd::kCmdEnd, u""), 0u);

    EXPECT_EQ(read_file(hostSide / "outside/keep"), "keep");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(hostSide / "outside"), {}), 1);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(hostSide / "in"), {}), 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(hostSide.path()), {}), 2);
    const auto r = sink.result(kWorker);
    ASSERT_TRUE(r);
    EXPECT_NE(r->refusal.find("unacceptable name"), std::string::npos) << r->refusal;
}

TEST_F(TreeSinkTest, TransfersOfSeveralWorkersRunAtOnce) {
    for (int i = 0; i < 4; ++i)
        write_file(guest / ("t" + std::to_string(i) + "/data"), std::string(150000 + i, 'x'));
    hostsim::TreeSink sink(host, options(hostsim::ConflictPolicy::Stop));
    std::vector<std::thread> jobs;
    for (int i = 0; i < 4; ++i)
        jobs.emplace_back([&, i] { run_send(100 + i, {guest / ("t" + std::to_string(i))}); });
    for (auto& j : jobs) j.join();
    ASSERT_EQ(sink.finished().size(), 4u);
    for (const SinkResult& r : sink.finished()) {
        EXPECT_EQ(r.state, SinkResult::State::Done) << r.workerId << ": " << r.refusal;
        EXPECT_TRUE(r.totals_match());
    }
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(read_file(hostSide / ("in/t" + std::to_string(i) + "/data")).size(), 150000u + i);
}

TEST_F(TreeSinkTest, FileListsGetWorkerIdsOfTheirOwnWhenAsked) {
    hostsim::SinkOptions o = options(hostsim::ConflictPolicy::Stop);
    o.assignWorkerIds = true;
    o.fileListAction = 4;
    hostsim::TreeSink sink(host, o);
    uint64_t first = 0, second = 0;
    uint32_t action = 0;
    ASSERT_TRUE(qvx::SendFileList(context(0), false, {"/a"}, &first, &action));
    EXPECT_EQ(action, 4u);
    ASSERT_TRUE(qvx::SendFileList(context(0), true, {"/b"}, &second, nullptr));
    EXPECT_NE(first, 0u);
    EXPECT_NE(first, second);
}

TEST_F(TreeSinkTest, AnEndpointStoresTheTransfersItIsHandedOneAfterAnother) {
    write_file(guest / "a/one", "1");
    write_file(guest / "b/two", "22");
    hostsim::TreeSink sink(host, options(hostsim::ConflictPolicy::Stop));
    // As a drag player routes the worker's messages: its own first, the rest to the sink.
    const hostsim::Handler endpoint = sink.endpoint(kWorker);
    host.set_worker_handler(kWorker, [endpoint](hostsim::Exchange& ex) {
        return ex.command == dnd::kCmd273 ? 0u : endpoint(ex);
    });
    host.set_handler(dnd::kCmdFileList,
                     [&](hostsim::Exchange& ex) { return sink.answer_file_list(ex); });
    uint64_t worker = 0;
    ASSERT_TRUE(qvx::SendFileList(context(0), false, {"/a"}, &worker, nullptr));
    EXPECT_GE(worker, 0x1000u);

    EXPECT_TRUE(qvx::SendChecked(context(kWorker), dnd::kCmd273));
    run_send(kWorker, {guest / "a"});
    run_send(kWorker, {guest / "b"});
    const auto done = sink.finished();
    ASSERT_EQ(done.size(), 2u);
    for (const SinkResult& r : done) {
        EXPECT_EQ(r.state, SinkResult::State::Done) << r.refusal;
        EXPECT_TRUE(r.totals_match());
    }
    EXPECT_EQ(read_file(hostSide / "in/a/one"), "1");
    EXPECT_EQ(read_file(hostSide / "in/b/two"), "22");
    EXPECT_TRUE(host.has_worker_handler(kWorker));  // still the router's
}

}  // namespace
