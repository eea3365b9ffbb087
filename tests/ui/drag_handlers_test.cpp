// The drag handlers on the control side, in virtual time, against a scripted host, while
// the main run loop runs the desktop: every message in order and every failure path.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>

#include "support/log_capture.h"
#include "support/main_loop.h"
#include "support/virtual_clock.h"
#include "ui/drag_handlers.h"
#include "ui/drag_test_support.h"
#include "ui/overlay.h"

namespace qvx {
namespace {

using Strings = std::vector<std::string>;
using platform::Selection;

CFIndex overlay_listed() {
    CFArrayRef list = CGWindowListCopyWindowInfo(kCGWindowListOptionIncludingWindow,
                                                 static_cast<CGWindowID>(overlayWindowNumber));
    const CFIndex n = CFArrayGetCount(list);
    CFRelease(list);
    return n;
}

unsigned times_shown() {
    if (!overlayWindow.load()) return 0;
    return platform::window(overlayWindowNumber)->timesOrderedIn;
}

class DragHandlerTest : public qvxtest::DesktopFixture {
  protected:
    void SetUp() override {
        DesktopFixture::SetUp();
        ASSERT_TRUE(m_pool.Init());
        qvxtest::JobRecorder::install(m_pool);
        g_dragPool = &m_pool;
    }
    void TearDown() override {
        m_pool.Stop();
        m_pool.Destroy();
        qvxtest::JobRecorder::release();
        g_dragPool = nullptr;
        DesktopFixture::TearDown();
    }

    DnDContext context(uint64_t worker) { return DnDContext{worker, nullptr, m_host.send()}; }

    // Runs `control` as the control thread would, on the virtual clock whose sleeps first
    // let the main loop catch up, while this thread runs the main loop.
    void on_control_thread(const std::function<void()>& control) {
        qvxtest::VirtualClock clock;
        clock.set_before_sleep([] { qvxtest::settle(); });
        qvxtest::with_main_loop(control);
        m_slept = clock.slept_us();
    }

    // The user presses on the folder window at (0, 0, 300, 300) and drags its selection
    // to the screen's right edge, where the host takes over.
    void drag_to_edge() {
        auto [x, y] = qvxtest::pixels_of(150, 150);
        platform::post_pointer_event(x, y, 1);
        platform::post_pointer_event(100000, 900, 1);
    }

    qvxtest::ScriptedHost m_host;
    DnDPool m_pool{nullptr, m_host.send()};
    uint64_t m_slept = 0;
};

TEST_F(DragHandlerTest, ParkPointIsTheCentreUnlessTheDropIsNearIt) {
    EXPECT_EQ(ParkPoint(720, 450)->x, 500);
    EXPECT_EQ(ParkPoint(720, 450)->y, 450);
    EXPECT_EQ(ParkPoint(900, 450)->x, 720);
    // The distance test is strict on both axes.
    EXPECT_EQ(ParkPoint(610, 450)->x, 720);
    EXPECT_EQ(ParkPoint(611, 339)->x, 720);
    EXPECT_EQ(ParkPoint(611, 341)->x, 500);
    platform::set_screens({});
    EXPECT_FALSE(ParkPoint(720, 450));
}

TEST_F(DragHandlerTest, HostDropPressesTheOverlayMovesToTheFolderAndStartsOneReceiveJob) {
    // 1440 x 900 points at scale 2; the drop at (100, 200) lies on a folder window.
    const NSInteger folder =
        platform::open_folder_window("/guest/Documents", NSMakeRect(0, 500, 400, 400), true);
    decltype(platform::current_drag()) drag;
    m_host.afterMove = [&](const qvxtest::SentRecord& r) {
        if (r.x != 202) return;
        qvxtest::settle();
        drag = platform::current_drag();
    };
    qvxtest::LogCapture log;
    bool result = false;
    on_control_thread([&] { result = HandleHostToGuestDrag(context(7), 100, 200); });

    EXPECT_TRUE(result);
    EXPECT_EQ(m_host.texts(), (Strings{"263 0/0", "278", "279", "275 1440,900,1", "275 202,400,2",
                                       "275 200,400,2", "275 200,400,0", "280"}));
    for (const auto& r : m_host.sent()) EXPECT_EQ(r.workerId, 7u) << r.text();
    EXPECT_TRUE(log.contains("[DNDTOOL] send DD_DIALOG_ID_PREPARE worker = 7"));
    // The press on the overlay started a promise drag of a one-point image.
    ASSERT_TRUE(drag);
    EXPECT_TRUE(drag->ownedByTool);
    EXPECT_EQ(drag->source, overlayWindowNumber.load());
    EXPECT_EQ(drag->types, Strings{"NSFilesPromisePboardType"});
    EXPECT_EQ(drag->image.width, 1.0);
    EXPECT_EQ(drag->image.height, 1.0);
    EXPECT_EQ(filesDropped.load(), 1);
    const auto jobs = qvxtest::JobRecorder::started();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].direction, kDirectionReceive);
    EXPECT_EQ(jobs[0].workerId, 7u);
    EXPECT_EQ(jobs[0].destination, "/guest/Documents");
    EXPECT_EQ(platform::last_drop()->window, folder);
    EXPECT_EQ(overlay_listed(), 0);  // hidden again
    EXPECT_GE(m_slept, 1000000u);    // the pause between the two moves
}

TEST_F(DragHandlerTest, RefusedDropEndsAfterFiveSecondsWithDialogThen280) {
    platform::open_folder_window("/guest/ro", NSMakeRect(0, 500, 400, 400), false);
    bool result = true;
    on_control_thread([&] { result = HandleHostToGuestDrag(context(8), 100, 200); });

    EXPECT_FALSE(result);
    EXPECT_EQ(m_host.texts(), (Strings{"263 0/0", "278", "279", "275 1440,900,1", "275 202,400,2",
                                       "275 200,400,2", "275 200,400,0", "263 4/12", "280"}));
    EXPECT_EQ(filesDropped.load(), 0);
    EXPECT_TRUE(qvxtest::JobRecorder::started().empty());
    EXPECT_EQ(overlay_listed(), 0);
    EXPECT_GE(m_slept, 6000000u);  // the pause and the whole drop wait
    EXPECT_LT(m_slept, 7100000u);
}

// A failure before the window is shown shows none; one after it hides it again.
TEST_F(DragHandlerTest, FailuresEndTheDropWithTheWindowHidden) {
    struct Case {
        uint32_t command, status, prepareValue;
        Strings sent;
        unsigned shows;
    };
    const Case cases[] = {
        {dnd::kCmdQueryPrepare, 9, 0, {"263 0/0", "278"}, 0},              // ends quietly
        {dnd::kCmdQueryPrepare, 5, 0, {"263 0/0", "278", "263 4/12"}, 0},  // the query reports it
        {dnd::kCmdQueryPrepare, 0, 3, {"263 0/0", "278", "263 4/12"}, 0},  // the value says no
        {dnd::kCmd279, 9, 0, {"263 0/0", "278", "279"}, 1},
        {dnd::kCmd279, 5, 0, {"263 0/0", "278", "279", "263 4/12"}, 1},
        // A failed move sends its own dialog, then 280; the rest of the path is skipped.
        {dnd::kCmdMoveMouse,
         9,
         0,
         {"263 0/0", "278", "279", "275 1440,900,1", "263 4/12", "280"},
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command * 100 + c.status + c.prepareValue);
        qvxtest::ScriptedHost host;
        host.status[c.command] = c.status;
        host.prepareValue = c.prepareValue;
        const unsigned shown = times_shown();
        bool result = true;
        on_control_thread([&] {
            result = HandleHostToGuestDrag(DnDContext{9, nullptr, host.send()}, 100, 200);
            // The host ends the drag that a press left behind, which holds the main loop.
            platform::post_pointer_event(0, 0, 0);
        });
        EXPECT_FALSE(result);
        EXPECT_EQ(host.texts(), c.sent);
        EXPECT_EQ(times_shown(), shown + c.shows);
        EXPECT_EQ(overlay_listed(), 0);
    }
}

TEST_F(DragHandlerTest, WindowThatNeverAppearsEndsTheDropAfterFiveSeconds) {
    // No main loop runs, so the show block never does.
    qvxtest::VirtualClock clock;
    EXPECT_FALSE(HandleHostToGuestDrag(context(4), 100, 200));
    EXPECT_EQ(m_host.texts(), (Strings{"263 0/0", "278", "263 4/12"}));
    EXPECT_GE(clock.slept_us(), 4000000u);
    EXPECT_LE(clock.slept_us(), 5000000u);
}

TEST_F(DragHandlerTest, WithoutAScreenTheDropIsRefusedBeforeAnythingIsShown) {
    platform::set_screens({});
    const unsigned shown = times_shown();
    bool result = true;
    on_control_thread([&] { result = HandleHostToGuestDrag(context(4), 100, 200); });
    EXPECT_FALSE(result);
    EXPECT_EQ(m_host.texts(), (Strings{"263 0/0", "278", "263 4/12"}));
    EXPECT_EQ(times_shown(), shown);
}

TEST_F(DragHandlerTest, GuestDragWithTheButtonUpOnlyShowsAndHidesTheWindow) {
    const unsigned shown = times_shown();
    on_control_thread([&] { HandleGuestToHostDrag(context(5)); });
    EXPECT_TRUE(m_host.sent().empty());
    EXPECT_EQ(times_shown(), shown + 1);
    EXPECT_EQ(overlay_listed(), 0);
    EXPECT_LT(m_slept, 100000u);
}

TEST_F(DragHandlerTest, GuestTextDragIsNeverCaughtAndTheHandlerGivesUpAfterFiveSeconds) {
    const NSInteger folder =
        platform::open_folder_window("/guest", NSMakeRect(0, 0, 300, 300), true);
    platform::select_in_window(folder, {Selection::Kind::Text, {}, "some words"});
    drag_to_edge();
    on_control_thread([&] { HandleGuestToHostDrag(context(5)); });
    EXPECT_TRUE(m_host.sent().empty());
    pthread_mutex_lock(&g_globalMutex);
    EXPECT_TRUE(draggedPaths.empty());
    pthread_mutex_unlock(&g_globalMutex);
    EXPECT_GE(m_slept, 4900000u);
    EXPECT_LE(m_slept, 5000000u);
    EXPECT_EQ(overlay_listed(), 0);
    EXPECT_TRUE(qvxtest::JobRecorder::started().empty());
}

TEST_F(DragHandlerTest, GuestFileDragIsAnnouncedHandedOverAndSent) {
    const NSInteger folder =
        platform::open_folder_window("/guest", NSMakeRect(0, 0, 300, 300), true);
    platform::select_in_window(folder,
                               {Selection::Kind::Paths, {"/guest/b.txt", "/guest/Été"}, {}});
    m_host.action = 4u /* delete */;
    drag_to_edge();
    on_control_thread([&] { HandleGuestToHostDrag(context(5)); });

    // The pointer sits at the right edge, pixel 2879 of 2880, half way down.
    EXPECT_EQ(m_host.texts(), (Strings{"258", "275 2879,900,2", "273"}));
    const auto sent = m_host.sent();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].workerId, 0u);
    EXPECT_EQ(sent[0].names, (Strings{"/guest/b.txt", "/guest/E\xCC\x81te\xCC\x81"}));
    EXPECT_EQ(sent[1].workerId, 77u);
    EXPECT_EQ(sent[2].workerId, 77u);
    const auto jobs = qvxtest::JobRecorder::started();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].direction, kDirectionSend);
    EXPECT_EQ(jobs[0].workerId, 77u);
    EXPECT_EQ(jobs[0].action, 4u /* delete */);
    EXPECT_EQ(jobs[0].paths, (Strings{"/guest/b.txt", "/guest/Été"}));
    // The host released the pointer at 273: the drag ended over the view.
    EXPECT_EQ(dragEnded.load(), 1);
    EXPECT_EQ(platform::last_drop()->window, overlayWindowNumber.load());
    EXPECT_EQ(overlay_listed(), 0);
    EXPECT_LT(m_slept, 1000000u);
}

TEST_F(DragHandlerTest, RefusedFileListHidesTheWindowAndSends273OnceItIsUnlisted) {
    const NSInteger folder =
        platform::open_folder_window("/guest", NSMakeRect(0, 0, 300, 300), true);
    platform::select_in_window(folder, {Selection::Kind::Paths, {"/guest/a"}, {}});
    m_host.status[dnd::kCmdFileList] = 5;
    m_host.releaseOnHandOver = false;
    CFIndex listedAtHandOver = -2;
    m_host.onHandOver = [&] { listedAtHandOver = overlay_listed(); };
    // The main thread is slow to take the hide block: the handler must wait for it.
    m_host.onSend = [](const qvxtest::SentRecord& r) {
        if (r.command == dnd::kCmdFileList)
            post_to_main([] { std::this_thread::sleep_for(std::chrono::milliseconds(100)); });
    };
    drag_to_edge();
    on_control_thread([&] { HandleGuestToHostDrag(context(5)); });

    EXPECT_EQ(m_host.texts(), (Strings{"258", "273"}));
    EXPECT_EQ(m_host.sent()[1].workerId, 5u);
    EXPECT_EQ(listedAtHandOver, 0);
    EXPECT_TRUE(qvxtest::JobRecorder::started().empty());
    platform::post_pointer_event(0, 0, 0);
    qvxtest::with_main_loop([] {});
}

}  // namespace
}  // namespace qvx
