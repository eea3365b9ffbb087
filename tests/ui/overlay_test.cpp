// The overlay window as shown on the desktop, the view's answers to drags, the promised-
// files drag a click starts, and the scale factor.
#include <gtest/gtest.h>

#include <cstdlib>

#include <AppKit/AppKit.h>
#include <CoreFoundation/CoreFoundation.h>

#include "support/main_loop.h"
#include "ui/drag_test_support.h"
#include "ui/overlay.h"
#include "ui/view.h"

namespace qvx {
namespace {

using Strings = std::vector<std::string>;

// Runs `work` on the main thread through post_to_main and waits for it.
void on_main(std::function<void()> work) {
    qvxtest::with_main_loop([&] {
        post_to_main(work);
        qvxtest::settle();
    });
}

// A drag's information with a pasteboard that carries only what the test puts there.
class FakeDrag : public NSDraggingInfo {
  public:
    NSPasteboard board;
    NSPasteboard* draggingPasteboard() override { return &board; }
    NSPoint draggingLocation() override { return {}; }
    id draggingSource() override { return nil; }
    NSDragOperation draggingSourceOperationMask() override { return NSDragOperationEvery; }
    NSWindow* draggingDestinationWindow() override { return nullptr; }
    NSInteger draggingSequenceNumber() override { return 1; }

    void carry_files(const Strings& paths) {
        board.declareTypes(NSArray::arrayWithObjects({NSFilenamesPboardType}).get(), nil);
        std::vector<CFTypeRef> strings;
        for (const auto& p : paths)
            strings.push_back(CFStringCreateWithCString(nullptr, p.c_str(), kCFStringEncodingUTF8));
        board.setPropertyList(NSArray::arrayWithArray(strings), NSFilenamesPboardType);
        for (CFTypeRef s : strings) CFRelease(s);
    }
};

Strings dragged() {
    pthread_mutex_lock(&g_globalMutex);
    Strings copy = draggedPaths;
    pthread_mutex_unlock(&g_globalMutex);
    return copy;
}

class OverlayTest : public qvxtest::DesktopFixture {
  protected:
    void TearDown() override {
        on_main([] { hide_overlay(); });
        DesktopFixture::TearDown();
    }
};

TEST_F(OverlayTest, ShownWindowIsTransparentTakesThePointerAndIsReusedWithTheNewWorker) {
    // Made by this show unless an earlier test of the same process made it.
    const bool made = overlayWindow.load() == nullptr;
    on_main([] { show_overlay(300, 400, 11, 0); });
    NSWindow* window = overlayWindow.load();
    ASSERT_NE(window, nullptr);
    const size_t firstShow = window->calls().size();
    const NSInteger number = overlayWindowNumber.load();
    EXPECT_EQ(window->windowNumber(), number);
    EXPECT_EQ(window->styleMask(), 6u);
    EXPECT_EQ(window->backingType(), NSBackingStoreBuffered);
    EXPECT_EQ(window->level(), 26);
    EXPECT_EQ(window->alphaValue(), 0.0);
    EXPECT_FALSE(window->hasShadow());
    EXPECT_FALSE(window->ignoresMouseEvents());
    // Ordered in, then drawn: a window is drawn only while on screen.
    if (made) {
        EXPECT_EQ(window->calls(), (Strings{"makeKeyAndOrderFront:", "display"}));
    }
    auto* view = dynamic_cast<CView*>(window->contentView());
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->worker(), 11u);
    EXPECT_EQ(view->autoresizingMask(), 18u);
    const auto info = platform::window(number);
    ASSERT_TRUE(info);
    EXPECT_TRUE(info->onscreen);
    EXPECT_TRUE(info->attributes.takesPointer);
    EXPECT_EQ(info->attributes.frame.origin.x, 200);
    EXPECT_EQ(info->attributes.frame.origin.y, 300);
    EXPECT_EQ(info->attributes.frame.size.width, 200);
    EXPECT_EQ(info->attributes.draggedTypes,
              (Strings{"NSColorPboardType", "NSFilenamesPboardType"}));
    EXPECT_EQ(std::get<int64_t>(info->properties.at(kOverlayPropertyKey)), 1);

    dragEnded = 1;
    on_main([] {
        hide_overlay();
        show_overlay(900, 100, 12, 5);
    });
    EXPECT_EQ(overlayWindow.load(), window);
    EXPECT_EQ(overlayWindowNumber.load(), number);
    EXPECT_EQ(overlayOperation.load(), 5u);
    EXPECT_EQ(view->worker(), 12u);
    EXPECT_EQ(dragEnded.load(), 0);
    // Behind the other windows of its level until the frame moves it under the pointer.
    EXPECT_EQ(Strings(window->calls().begin() + firstShow, window->calls().end()),
              (Strings{"orderOut:", "orderBack:", "setFrame:display:"}));
    EXPECT_TRUE(platform::window(number)->onscreen);
    EXPECT_EQ(platform::window(number)->attributes.frame.origin.x, 800);

    on_main([] { move_overlay(50, 60); });
    EXPECT_EQ(platform::window(number)->attributes.frame.origin.y, -40);
    on_main([] { hide_overlay(); });
    EXPECT_FALSE(platform::window(number)->onscreen);
}

TEST_F(OverlayTest, ViewTakesFileNamesInPasteboardOrderAndRefusesOtherDrags) {
    CView view;
    FakeDrag files;
    files.carry_files({"/g/one", "/g/zwei", "/g/tr\xC3\xA8s"});
    EXPECT_EQ(view.draggingEntered(&files), NSDragOperationCopy);
    EXPECT_EQ(dragged(), (Strings{"/g/one", "/g/zwei", "/g/tr\xC3\xA8s"}));
    view.draggingExited(&files);
    EXPECT_TRUE(dragged().empty());

    // A colour, or a file list without entries, gets no operation and clears the list.
    view.draggingEntered(&files);
    FakeDrag colour;
    colour.board.declareTypes(NSArray::arrayWithObjects({NSColorPboardType}).get(), nil);
    EXPECT_EQ(view.draggingEntered(&colour), NSDragOperationNone);
    EXPECT_TRUE(dragged().empty());
    FakeDrag none;
    none.carry_files({});
    EXPECT_EQ(view.draggingEntered(&none), NSDragOperationNone);

    view.draggingEntered(&files);
    view.setWorker(3, 0);
    EXPECT_EQ(dragEnded.load(), 0);
    view.draggingEnded(&files);
    EXPECT_EQ(dragEnded.load(), 1);
    EXPECT_TRUE(dragged().empty());
}

// The capability is asked once per process, so each case runs in a process of its own.
TEST(ScaleFactor, ScreenWithoutScaleGivesOneForTheLifeOfTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            qvxtest::private_platform_root();
            platform::set_screens({{0, 0, 800, 600, std::nullopt}});
            const bool first = backing_scale_factor() == 1.0;
            platform::set_screens({{0, 0, 800, 600, 2.0}});
            std::exit(first && backing_scale_factor() == 1.0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            qvxtest::private_platform_root();
            const bool first = backing_scale_factor() == 2.0;
            platform::set_screens({{0, 0, 800, 600, 3.0}});
            std::exit(first && backing_scale_factor() == 3.0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qvx
