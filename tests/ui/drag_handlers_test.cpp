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
    // let the main loop catch up (then call `everySleep`), while this thread runs the main
    // loop.
    void on_control_thread(const std::function<void()>& control,
                           const std::function<void()>& everySleep = {}) {
        qvxtest::VirtualClock clock;
        clock.set_before_sleep([&] {
            qvxtest::settle();
            if (everySleep) everySleep();
        });
        qvxtest::with_main_loop([&] {
            control();
            qvxtest::settle();
            // A drag of the overlay's view holds the main loop in event tracking, where the
            // end of this run would never come.
            if (auto drag = platform::current_drag(); drag && drag->ownedByTool) {
                ADD_FAILURE() << "the overlay's drag outlived its handler";
                platform::post_pointer_event(0, 0, 0);
            }
        });
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
    // 1440 x 901 points at scale 2 (an odd height tells the press's y from the window
    // system's); the drop at (100, 200) lies on a folder window.
    platform::set_screens({{0, 0, 1440, 901, 2.0}});
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
    EXPECT_EQ(m_host.texts(), (Strings{"263 0/0", "278", "279", "275 1440,902,1", "275 202,400,2",
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
    const auto jobs = qvxtest::JobRecorder::started();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].direction, kDirectionReceive);
    EXPECT_EQ(jobs[0].workerId, 7u);
    EXPECT_EQ(jobs[0].destination, "/guest/Documents");
    EXPECT_EQ(platform::last_drop()->window, folder);
    EXPECT_EQ(overlay_listed(), 0);  // hidden again
    EXPECT_GE(m_slept, 1000000u);    // the pause between the two moves
}

// A folder that refuses the drop, and one whose receive job cannot start: the operation
// ends with the dialog and 280, and the control loop's 260.
TEST_F(DragHandlerTest, DropThatStartsNoJobEndsWithDialogThen280) {
    for (const bool accepts : {false, true}) {
        SCOPED_TRACE(accepts);
        qvxtest::ScriptedHost host;
        platform::desktop_reset();
        platform::open_folder_window("/guest/f", NSMakeRect(0, 500, 400, 400), accepts);
        if (accepts)
            m_pool.SetCreateThread(
                [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
        bool result = true;
        on_control_thread([&] {
            result = HandleHostToGuestDrag(DnDContext{8, nullptr, host.send()}, 100, 200);
        });

        EXPECT_FALSE(result);
        EXPECT_EQ(host.texts(), (Strings{"263 0/0", "278", "279", "275 1440,900,1", "275 202,400,2",
                                         "275 200,400,2", "275 200,400,0", "263 4/12", "280"}));
        EXPECT_EQ(platform::drop_count(), accepts ? 1u : 0u);
        EXPECT_TRUE(qvxtest::JobRecorder::started().empty());
        EXPECT_EQ(overlay_listed(), 0);
        // The pause, and the whole drop wait only when nothing was dropped.
        EXPECT_GE(m_slept, accepts ? 1000000u : 6000000u);
        EXPECT_LT(m_slept, accepts ? 1100000u : 7100000u);
    }
}

// A failure before the window is shown shows none; one after it hides it again. Once the
// pointer was pressed, the host is asked to release it where it was pressed, which ends the
// overlay's drag before the 280.
TEST_F(DragHandlerTest, FailuresEndTheDropWithTheWindowHidden) {
    struct Case {
        uint32_t command, status, prepareValue;
        unsigned nth;  // 0: every record of the command
        Strings sent;
        unsigned shows;
    };
    const Case cases[] = {
        {dnd::kCmdQueryPrepare, 9, 0, 0, {"263 0/0", "278"}, 0},              // ends quietly
        {dnd::kCmdQueryPrepare, 5, 0, 0, {"263 0/0", "278", "263 4/12"}, 0},  // reported
        {dnd::kCmdQueryPrepare, 0, 3, 0, {"263 0/0", "278", "263 4/12"}, 0},  // the value says no
        {dnd::kCmd279, 9, 0, 0, {"263 0/0", "278", "279"}, 1},
        {dnd::kCmd279, 5, 0, 0, {"263 0/0", "278", "279", "263 4/12"}, 1},
        // A move sends its own dialog; the rest of the path is skipped.
        {dnd::kCmdMoveMouse,
         9,
         0,
         2,
         {"263 0/0", "278", "279", "275 1440,900,1", "275 202,400,2", "263 4/12", "275 1440,900,0",
          "280"},
         1},
        {dnd::kCmdMoveMouse,
         5,
         0,
         0,
         {"263 0/0", "278", "279", "275 1440,900,1", "263 4/12", "275 1440,900,0", "263 4/12",
          "280"},
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command * 100 + c.status + c.prepareValue + c.nth);
        qvxtest::ScriptedHost host;
        if (c.nth)
            host.nthStatus[{c.command, c.nth}] = c.status;
        else
            host.status[c.command] = c.status;
        host.prepareValue = c.prepareValue;
        const unsigned shown = times_shown();
        bool result = true;
        on_control_thread([&] {
            result = HandleHostToGuestDrag(DnDContext{9, nullptr, host.send()}, 100, 200);
        });
        EXPECT_FALSE(result);
        EXPECT_EQ(host.texts(), c.sent);
        EXPECT_EQ(times_shown(), shown + c.shows);
        EXPECT_EQ(overlay_listed(), 0);
    }
    EXPECT_TRUE(qvxtest::JobRecorder::started().empty());
}

// The host fails the move after the press and the release asked for then: the drag stays
// until the user lets go. Meanwhile the next drop neither presses the old window nor lets
// the old drag serve it, and the old drag's own drop starts nothing; the drop after that
// starts its receive with its own worker.
TEST_F(DragHandlerTest, DragTheHostNeverReleasedActsOnNoOperation) {
    const NSInteger folder =
        platform::open_folder_window("/guest/Documents", NSMakeRect(0, 500, 400, 400), true);
    qvxtest::ScriptedHost first, second, third;
    first.nthStatus[{dnd::kCmdMoveMouse, 2}] = 9;
    first.nthStatus[{dnd::kCmdMoveMouse, 3}] = 9;
    bool results[3] = {true, true, false};
    on_control_thread([&] {
        results[0] = HandleHostToGuestDrag(DnDContext{7, nullptr, first.send()}, 100, 200);
        results[1] = HandleHostToGuestDrag(DnDContext{8, nullptr, second.send()}, 100, 200);
        const auto [x, y] = qvxtest::pixels_of(100, 700);
        platform::post_pointer_event(x, y, 0);
    });
    EXPECT_FALSE(results[0]);
    EXPECT_FALSE(results[1]);
    EXPECT_EQ(second.texts(), (Strings{"263 0/0", "278", "263 4/12"}));
    EXPECT_EQ(platform::last_drop()->window, folder);
    EXPECT_TRUE(qvxtest::JobRecorder::started().empty());

    on_control_thread([&] {
        results[2] = HandleHostToGuestDrag(DnDContext{9, nullptr, third.send()}, 100, 200);
    });
    EXPECT_TRUE(results[2]);
    const auto jobs = qvxtest::JobRecorder::started();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].workerId, 9u);
    EXPECT_EQ(overlay_listed(), 0);
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

// The host releases the pointer a few polls after the 273: the handler keeps the overlay
// under it until the drag has ended there, or the release would drop the files on the
// folder window beneath. A send job that cannot start leaves the new worker's operation
// for the handler to end.
TEST_F(DragHandlerTest, GuestFileDragIsAnnouncedHandedOverAndSent) {
    for (const bool jobStarts : {true, false}) {
        SCOPED_TRACE(jobStarts);
        platform::desktop_reset();
        const NSInteger folder =
            platform::open_folder_window("/guest", NSMakeRect(0, 0, 300, 300), true);
        platform::open_folder_window("/edge", NSMakeRect(1340, 350, 100, 200), true);
        platform::select_in_window(folder,
                                   {Selection::Kind::Paths, {"/guest/b.txt", "/guest/Été"}, {}});
        qvxtest::ScriptedHost host;
        host.action = 4u /* delete */;
        host.releaseOnHandOver = false;
        bool handedOver = false;
        host.onHandOver = [&] { handedOver = true; };
        int polls = 0;
        if (!jobStarts)
            m_pool.SetCreateThread(
                [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
        drag_to_edge();
        on_control_thread(
            [&] {
                HandleGuestToHostDrag(DnDContext{5, nullptr, host.send()});
            },
            [&] {
                if (!handedOver || ++polls != 3) return;
                const auto p = platform::pointer_state();
                platform::post_pointer_event(p.x, p.y, 0);
            });

        // The pointer sits at the right edge, pixel 2879 of 2880, half way down.
        Strings expected{"258", "275 2879,900,2", "273"};
        if (!jobStarts) expected.insert(expected.end(), {"263 4/12", "260"});
        EXPECT_EQ(host.texts(), expected);
        const auto sent = host.sent();
        ASSERT_EQ(sent.size(), expected.size());
        EXPECT_EQ(sent[0].workerId, 0u);
        EXPECT_EQ(sent[0].names, (Strings{"/guest/b.txt", "/guest/E\xCC\x81te\xCC\x81"}));
        for (size_t i = 1; i < sent.size(); ++i) EXPECT_EQ(sent[i].workerId, 77u) << i;
        // The second pass starts none.
        const auto jobs = qvxtest::JobRecorder::started();
        ASSERT_EQ(jobs.size(), 1u);
        EXPECT_EQ(jobs[0].direction, kDirectionSend);
        EXPECT_EQ(jobs[0].workerId, 77u);
        EXPECT_EQ(jobs[0].action, 4u /* delete */);
        EXPECT_EQ(jobs[0].paths, (Strings{"/guest/b.txt", "/guest/Été"}));
        EXPECT_EQ(dragEnded.load(), 1);
        EXPECT_EQ(platform::last_drop()->window, overlayWindowNumber.load());
        EXPECT_EQ(overlay_listed(), 0);
        EXPECT_LT(m_slept, 1000000u);
    }
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
