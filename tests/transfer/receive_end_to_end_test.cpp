// A drop of a host tree received end to end: the transfer job through the real
// communicator and toolgate socket to an in-process simulated host that serves a folder.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "hostsim/tree_source.h"
#include "support/job_host.h"
#include "support/temp_dir.h"
#include "support/trees.h"

namespace {

TEST(ReceiveEndToEnd, HostTreeArrivesWholeThroughTheToolgate) {
    qvxtest::JobHost jobs;
    ASSERT_TRUE(jobs.ready());
    qvxtest::TempDir dir;
    const std::string src = dir / "host", dest = dir / "guest";
    // Every kind of item, and file sizes on both sides of a chunk.
    qvxtest::make_every_kind_tree(src, 3 * 131072 + 5);
    qvxtest::write_file(src + "/chunk", std::string(131072, 'c'));
    qvxtest::write_file(src + "/chunk+1", std::string(131073, 'd'));
    qvxtest::make_dirs(dest);

    std::vector<hostsim::SourceItem> items;
    ASSERT_TRUE(hostsim::list_folder(src, items));
    uint64_t bytes = 0;
    for (const auto& item : items)
        bytes += item.kind == hostsim::SourceItem::Kind::File ? item.size : 0;
    auto source = std::make_shared<hostsim::TreeSource>(std::move(items));
    EXPECT_EQ(jobs.receive(source, dest, jobs.new_worker()), 1);

    // The guest's names are the host's in form D.
    EXPECT_EQ(qvxtest::tree_differences(src, dest, true), std::vector<std::string>{});
    EXPECT_EQ(source->ends(), 1u);
    for (const auto& n : source->notices()) EXPECT_NE(n.dialogId, 4u) << "code " << n.code;
    EXPECT_EQ(source->bytes_served(), bytes) << "every byte asked for once";
}

}  // namespace
