// The headless desktop: the window server's list, pointer routing, drag destinations,
// drops, the drag a view runs on the main loop, and the control socket.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <AppKit/AppKit.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>

#include "platform/sim/desktop.h"
#include "platform/sim/desktop_client.h"
#include "platform/sim/desktop_socket.h"
#include "platform/sim/run_loop.h"
#include "support/main_loop.h"
#include "support/private_root.h"
#include "support/temp_dir.h"

namespace {

using nlohmann::json;

CFIndex listed(NSInteger number, CGWindowListOption option = kCGWindowListOptionIncludingWindow) {
    CFArrayRef list = CGWindowListCopyWindowInfo(option, static_cast<CGWindowID>(number));
    const CFIndex n = CFArrayGetCount(list);
    CFRelease(list);
    return n;
}

std::vector<NSInteger> on_screen() {
    CFArrayRef list = CGWindowListCopyWindowInfo(kCGWindowListOptionOnScreenOnly, kCGNullWindowID);
    std::vector<NSInteger> out;
    for (CFIndex i = 0; i < CFArrayGetCount(list); ++i) {
        int64_t n = 0;
        CFNumberGetValue(static_cast<CFNumberRef>(CFArrayGetValueAtIndex(list, i)),
                         kCFNumberSInt64Type, &n);
        out.push_back(n);
    }
    CFRelease(list);
    return out;
}

// Pointer units (command 275's pixels) of a window-system point.
void press_at(NSPoint p, uint32_t buttons) {
    double x = 0, y = 0;
    platform::points_to_pointer(p, x, y);
    platform::post_pointer_event(x, y, buttons);
}

std::shared_ptr<NSArray> types_of(std::initializer_list<CFTypeRef> types) {
    return NSArray::arrayWithObjects(types);
}

// A destination view that writes down what it is told (on the main thread).
class RecordingView : public NSView, public NSDraggingDestination {
  public:
    NSDragOperation answer = NSDragOperationCopy;
    std::vector<std::string> events;

    NSDragOperation draggingEntered(NSDraggingInfo* sender) override {
        std::string names;
        if (auto list = sender->draggingPasteboard()->propertyListForType(NSFilenamesPboardType))
            for (NSUInteger i = 0; i < list->count(); ++i) {
                char buffer[256];
                CFStringGetCString(static_cast<CFStringRef>(list->objectAtIndex(i)), buffer,
                                   sizeof buffer, kCFStringEncodingUTF8);
                names += std::string(names.empty() ? "" : ",") + buffer;
            }
        events.push_back("entered " + names);
        return answer;
    }
    void draggingExited(NSDraggingInfo*) override { events.push_back("exited"); }
    void draggingEnded(NSDraggingInfo*) override { events.push_back("ended"); }
};

// The view of `window`, raised to the tool's level, taking colours and file names.
RecordingView* add_recording_view(NSWindow& window) {
    auto* view = new RecordingView;
    window.setContentView(view);
    view->registerForDraggedTypes(types_of({NSColorPboardType, NSFilenamesPboardType}).get());
    window.setLevel(26);
    return view;
}

// A view that starts a promised-files drag when pressed, and the source it names.
class PromisingView : public NSView, public NSDraggingSource {
  public:
    std::vector<std::string> events;

    void mouseDown(NSEvent* event) override {
        events.push_back("down");
        CFStringRef type = CFStringCreateWithCString(nullptr, "txt", kCFStringEncodingUTF8);
        auto types = NSArray::arrayWithObjects({type});
        CFRelease(type);
        dragPromisedFilesOfTypes(types.get(), NSMakeRect(10, 10, 1, 1), this, YES, event);
        events.push_back("drag returned");
    }
    std::shared_ptr<NSArray> namesOfPromisedFilesDroppedAtDestination(NSURL* url) override {
        char buffer[512];
        CFStringGetCString(url->path(), buffer, sizeof buffer, kCFStringEncodingUTF8);
        events.push_back(std::string("promised into ") + buffer);
        return NSArray::array();
    }
};

class DesktopTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qvxtest::private_platform_root(); }
    void SetUp() override { platform::desktop_reset(); }
    void TearDown() override {
        platform::run_loop_reset(CFRunLoopGetMain());
        platform::desktop_reset();
    }
};

TEST_F(DesktopTest, WindowServerListsAWindowExactlyWhileOrderedOnScreenFrontToBack) {
    NSWindow overlay(NSMakeRect(100, 100, 200, 200), 6, NSBackingStoreBuffered, NO);
    NSWindow normal(NSMakeRect(0, 0, 50, 50), NSWindowStyleMaskTitled, NSBackingStoreBuffered, NO);
    const NSInteger n = overlay.windowNumber();
    EXPECT_NE(n, normal.windowNumber());
    EXPECT_EQ(listed(n), 0);
    overlay.setLevel(26);
    overlay.makeKeyAndOrderFront(nil);
    EXPECT_EQ(listed(n), 1);
    overlay.orderOut(nil);
    EXPECT_EQ(listed(n), 0);
    EXPECT_EQ(listed(12345), 0);

    // Higher levels lie in front whatever the order of calls; within a level the latest
    // front order wins and orderBack goes behind.
    overlay.orderBack(nil);
    normal.orderFront(nil);
    const NSInteger folder = platform::open_folder_window("/tmp", NSMakeRect(0, 0, 10, 10), true);
    EXPECT_EQ(on_screen(), (std::vector<NSInteger>{n, folder, normal.windowNumber()}));
    normal.orderFront(nil);
    EXPECT_EQ(on_screen(), (std::vector<NSInteger>{n, normal.windowNumber(), folder}));
    EXPECT_EQ(listed(folder, kCGWindowListOptionOnScreenAboveWindow), 2);
    EXPECT_EQ(
        listed(folder, kCGWindowListOptionOnScreenBelowWindow | kCGWindowListOptionIncludingWindow),
        1);
    EXPECT_EQ(platform::window(n)->timesOrderedIn, 2u);

    // Properties go through the process's one connection.
    CFStringRef key = CFStringCreateWithCString(nullptr, "K", kCFStringEncodingUTF8);
    const int32_t one = 1;
    CFNumberRef value = CFNumberCreate(nullptr, kCFNumberSInt32Type, &one);
    EXPECT_EQ(CGSSetWindowProperty(CGSMainConnectionID(), static_cast<CGWindowID>(n), key, value),
              kCGErrorSuccess);
    EXPECT_EQ(
        CGSSetWindowProperty(CGSMainConnectionID() + 1, static_cast<CGWindowID>(n), key, value),
        kCGErrorIllegalArgument);
    EXPECT_EQ(CGSSetWindowProperty(CGSMainConnectionID(), 12345, key, value),
              kCGErrorIllegalArgument);
    CFRelease(value);
    CFRelease(key);
    EXPECT_EQ(std::get<int64_t>(platform::window(n)->properties.at("K")), 1);
}

TEST_F(DesktopTest, FileDragFollowsThePointerAndWindowChangesAndEndsWhereReleased) {
    // A window of the tool on the right, a folder window with two files on the left.
    NSWindow target(NSMakeRect(600, 300, 200, 200), 6, NSBackingStoreBuffered, NO);
    RecordingView* view = add_recording_view(target);
    target.makeKeyAndOrderFront(nil);
    const NSInteger folder =
        platform::open_folder_window("/guest/docs", NSMakeRect(100, 100, 300, 300), true);
    ASSERT_TRUE(platform::select_in_window(
        folder, {platform::Selection::Kind::Paths, {"/guest/docs/a", "/guest/docs/b"}, {}}));

    qvxtest::with_main_loop([&] {
        press_at(NSMakePoint(200, 200), 1);
        qvxtest::settle();
        auto drag = platform::current_drag();
        ASSERT_TRUE(drag);
        EXPECT_FALSE(drag->ownedByTool);
        EXPECT_EQ(drag->source, folder);
        EXPECT_EQ(drag->paths, (std::vector<std::string>{"/guest/docs/a", "/guest/docs/b"}));
        EXPECT_EQ(drag->over, folder);  // the file manager takes its own files
        EXPECT_EQ(drag->operation, NSDragOperationCopy);

        press_at(NSMakePoint(700, 400), 1);
        qvxtest::settle();
        EXPECT_EQ(platform::current_drag()->over, target.windowNumber());
        EXPECT_EQ(platform::current_drag()->operation, NSDragOperationCopy);

        // Hiding and showing the window under a still pointer re-evaluates too; so does
        // making it clear, which lets the pointer through.
        CFRunLoopPerformBlock(CFRunLoopGetMain(), kCFRunLoopDefaultMode,
                              [&] { target.orderOut(nil); });
        CFRunLoopWakeUp(CFRunLoopGetMain());
        qvxtest::settle();
        EXPECT_EQ(platform::current_drag()->over, 0);
        CFRunLoopPerformBlock(CFRunLoopGetMain(), kCFRunLoopDefaultMode, [&] {
            target.setAlphaValue(0.0);
            target.orderBack(nil);
        });
        CFRunLoopWakeUp(CFRunLoopGetMain());
        qvxtest::settle();
        EXPECT_EQ(platform::current_drag()->over, 0);
        CFRunLoopPerformBlock(CFRunLoopGetMain(), kCFRunLoopDefaultMode,
                              [&] { target.setIgnoresMouseEvents(NO); });
        CFRunLoopWakeUp(CFRunLoopGetMain());
        qvxtest::settle();
        EXPECT_EQ(platform::current_drag()->over, target.windowNumber());

        press_at(NSMakePoint(700, 400), 0);
        qvxtest::settle();
        EXPECT_FALSE(platform::current_drag());
        ASSERT_TRUE(platform::last_drop());
        EXPECT_EQ(platform::last_drop()->window, target.windowNumber());
        EXPECT_EQ(platform::last_drop()->source, folder);
    });
    EXPECT_EQ(view->events,
              (std::vector<std::string>{"entered /guest/docs/a,/guest/docs/b", "exited",
                                        "entered /guest/docs/a,/guest/docs/b", "ended"}));
}

TEST_F(DesktopTest, DragsOnlyEnterViewsThatRegisteredOneOfTheirTypes) {
    NSWindow target(NSMakeRect(0, 0, 400, 400), 6, NSBackingStoreBuffered, NO);
    RecordingView* view = add_recording_view(target);
    view->answer = NSDragOperationNone;
    target.orderFront(nil);
    const NSInteger folder =
        platform::open_folder_window("/guest", NSMakeRect(500, 0, 300, 300), true);

    qvxtest::with_main_loop([&] {
        // Text passes over the view unseen; a colour enters it, which refuses it.
        for (auto kind : {platform::Selection::Kind::Text, platform::Selection::Kind::Color}) {
            platform::select_in_window(folder, {kind, {}, "hello"});
            press_at(NSMakePoint(600, 100), 1);
            press_at(NSMakePoint(100, 100), 1);
            qvxtest::settle();
            EXPECT_EQ(platform::current_drag()->over,
                      kind == platform::Selection::Kind::Color ? target.windowNumber() : 0);
            EXPECT_EQ(platform::current_drag()->operation, NSDragOperationNone);
            press_at(NSMakePoint(100, 100), 0);
            qvxtest::settle();
        }
    });
    // The refused colour drag leaves the view with draggingExited: and draggingEnded:,
    // and nothing was dropped.
    EXPECT_EQ(view->events, (std::vector<std::string>{"entered ", "exited", "ended"}));
    EXPECT_EQ(platform::drop_count(), 0u);
}

TEST_F(DesktopTest, ViewDragTracksEventsWhileDefaultBlocksWaitAndDropsPromisesOnFolders) {
    NSWindow source(NSMakeRect(620, 350, 200, 200), 6, NSBackingStoreBuffered, NO);
    auto* view = new PromisingView;
    source.setContentView(view);
    source.orderFront(nil);
    const NSInteger folder =
        platform::open_folder_window("/guest/in", NSMakeRect(0, 500, 400, 400), true);
    qvxtest::with_main_loop([&] {
        press_at(NSMakePoint(720, 450), 1);
        qvxtest::settle();
        auto drag = platform::current_drag();
        ASSERT_TRUE(drag);
        EXPECT_TRUE(drag->ownedByTool);
        EXPECT_EQ(drag->source, source.windowNumber());
        EXPECT_EQ(drag->types, std::vector<std::string>{"NSFilesPromisePboardType"});
        EXPECT_EQ(drag->image.width, 32);

        // A default-mode block waits for the drag; pointer events do not.
        CFRunLoopPerformBlock(CFRunLoopGetMain(), kCFRunLoopDefaultMode,
                              [&] { view->events.push_back("default block"); });
        CFRunLoopWakeUp(CFRunLoopGetMain());
        press_at(NSMakePoint(100, 600), 1);
        qvxtest::settle();
        EXPECT_EQ(platform::current_drag()->over, folder);
        press_at(NSMakePoint(100, 600), 0);
        qvxtest::settle();
        EXPECT_FALSE(platform::current_drag());

        // Released over no destination: nothing is promised.
        press_at(NSMakePoint(720, 450), 1);
        press_at(NSMakePoint(1000, 100), 1);
        press_at(NSMakePoint(1000, 100), 0);
        qvxtest::settle();
    });
    EXPECT_EQ(view->events,
              (std::vector<std::string>{"down", "promised into /guest/in", "drag returned",
                                        "default block", "down", "drag returned"}));
    EXPECT_EQ(platform::drop_count(), 1u);
    EXPECT_EQ(platform::last_drop()->folder, "/guest/in");
}

TEST_F(DesktopTest, PointerEventsInNoWindowOrWithoutSelectionStartNothing) {
    const NSInteger folder = platform::open_folder_window("/g", NSMakeRect(0, 0, 300, 300), true);
    qvxtest::with_main_loop([&] {
        press_at(NSMakePoint(100, 100), 1);  // nothing selected
        press_at(NSMakePoint(100, 100), 0);
        press_at(NSMakePoint(900, 800), 1);  // the empty desktop
        press_at(NSMakePoint(900, 800), 0);
        qvxtest::settle();
        EXPECT_FALSE(platform::current_drag());
    });
    EXPECT_TRUE(platform::close_folder_window(folder));
    EXPECT_FALSE(platform::close_folder_window(folder));
}

TEST_F(DesktopTest, ControlSocketAnswersEveryLineAndRemovesItsSocket) {
    qvxtest::TempDir dir;
    const std::string path = dir / "run/quorvex/desktop";
    platform::Desktop desktop(path);
    ASSERT_TRUE(desktop.Start());
    {
        platform::DesktopClient client;
        ASSERT_TRUE(client.Connect(path));
        auto request = [&](const std::string& line) {
            return client.Request(json::parse(line)).value_or(json());
        };

        auto state = request(R"({"op": "state"})");
        EXPECT_EQ(state["ok"], true);
        EXPECT_TRUE(state["windows"].is_array() && state["windows"].empty());
        EXPECT_TRUE(state["drag"].is_null());
        EXPECT_EQ(state["screens"], json::parse(R"([{"frame": [0, 0, 1440, 900], "scale": 2.0}])"));

        // Malformed requests get an error; the connection stays usable.
        for (const char* bad :
             {R"([1,2])", R"({"op": 5})", R"({"op": "pointer"})", R"({"op": "open_folder"})",
              R"({"op": "open_folder", "folder": "/x", "frame": [1, 2]})",
              R"({"op": "select", "window": 1})", R"({"op": "select", "window": 999, "text": ""})",
              R"({"op": "close", "window": "1"})", R"({"op": "fly"})"}) {
            auto r = request(bad);
            EXPECT_EQ(r["ok"], false) << bad;
            EXPECT_TRUE(r["error"].is_string()) << bad;
        }

        auto opened =
            request(R"({"op": "open_folder", "folder": "/g/docs", "frame": [10, 20, 300, 200]})");
        ASSERT_EQ(opened["ok"], true);
        const int n = opened["window"];
        EXPECT_EQ(request(R"({"op": "select", "window": )" + std::to_string(n) +
                          R"(, "paths": ["/g/docs/a"]})")["ok"],
                  true);
        state = request(R"({"op": "state"})");
        ASSERT_EQ(state["windows"].size(), 1u);
        const json w = state["windows"][0];
        EXPECT_EQ(w["number"], n);
        EXPECT_EQ(w["owner"], "desktop");
        EXPECT_EQ(w["frame"], json::array({10.0, 20.0, 300.0, 200.0}));
        EXPECT_EQ(w["onscreen"], true);
        EXPECT_EQ(w["folder"], "/g/docs");
        EXPECT_EQ(w["accepts_drops"], true);
        EXPECT_EQ(w["selection"]["paths"], json::array({"/g/docs/a"}));
        EXPECT_EQ(request(R"({"op": "close", "window": )" + std::to_string(n) + "}")["ok"], true);
        EXPECT_TRUE(request(R"({"op": "state"})")["windows"].empty());

        // The pointer moves at once; its event waits for the main loop. New screens:
        // NSScreen follows, a screen without a scale does not answer backingScaleFactor,
        // and the pointer is kept on the screens.
        EXPECT_EQ(request(R"({"op": "pointer", "x": 300, "y": 40, "buttons": 1})")["ok"], true);
        state = request(R"({"op": "state"})");
        EXPECT_EQ(state["pointer"], json::array({300.0, 40.0}));
        EXPECT_EQ(state["buttons"], 1);
        EXPECT_EQ(NSEvent::pressedMouseButtons(), 1u);
        EXPECT_EQ(NSEvent::mouseLocation().x, 150);
        EXPECT_EQ(NSEvent::mouseLocation().y, 880);
        EXPECT_EQ(request(R"({"op": "screens", "screens": [{"frame": [0, 0, 800, 600]}]})")["ok"],
                  true);
        auto main = NSScreen::mainScreen();
        ASSERT_TRUE(main);
        EXPECT_EQ(main->frame().size.height, 600);
        EXPECT_FALSE(main->respondsToSelector(sel_registerName("backingScaleFactor")));
        request(R"({"op": "pointer", "x": 5000, "y": -20})");
        EXPECT_EQ(request(R"({"op": "state"})")["pointer"], json::array({799.0, 0.0}));
        EXPECT_EQ(request(R"({"op": "screens", "screens": []})")["ok"], true);
        EXPECT_TRUE(NSScreen::screens().empty());
    }
    desktop.Stop();
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

}  // namespace
