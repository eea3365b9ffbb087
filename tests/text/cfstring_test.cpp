// Tests of the CoreFoundation string stand-in that the conversions are built on.
#include <CoreFoundation/CFString.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string Utf8Of(CFStringRef s) {
    if (!s) return "<null>";
    std::string buffer(static_cast<size_t>(CFStringGetLength(s)) * 3 + 1, '\0');
    if (!CFStringGetCString(s, buffer.data(), static_cast<CFIndex>(buffer.size()),
                            kCFStringEncodingUTF8)) {
        return "<failed>";
    }
    buffer.resize(std::strlen(buffer.c_str()));
    return buffer;
}

TEST(CFStringStandIn, Utf8EncodingBoundariesRoundTrip) {
    for (const char* text :
         {"\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
          "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        CFStringRef s = CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8);
        EXPECT_EQ(Utf8Of(s), text);
        CFRelease(s);
    }
}

TEST(CFStringStandIn, RejectsIllFormedUtf8AndNonAscii) {
    for (const char* bad :
         {"\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
          "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xBF", "\xE2\x82", "\xE2\x28\xAC"}) {
        EXPECT_EQ(CFStringCreateWithCString(nullptr, bad, kCFStringEncodingUTF8), nullptr)
            << "input: " << bad;
    }
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "\xC3\xA9", kCFStringEncodingASCII), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(nullptr, nullptr, kCFStringEncodingUTF8), nullptr);
}

TEST(CFStringStandIn, NoCopyReadsCallerBytesAndFreesOnlyWhenAsked) {
    uint8_t bytes[] = {0, 'a', 0, 'b', 0};  // unaligned on purpose
    CFStringRef s = CFStringCreateWithBytesNoCopy(nullptr, bytes + 1, 4, kCFStringEncodingUTF16LE,
                                                  false, kCFAllocatorNull);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(CFStringGetLength(s), 2);
    bytes[3] = 'c';  // the string sees the caller's bytes, not a copy
    EXPECT_EQ(Utf8Of(s), "ac");
    CFRelease(s);  // must not free stack bytes

    // With the default deallocator the string takes the bytes over; the leak checker
    // catches a string that forgets them.
    auto* owned = static_cast<UInt8*>(std::malloc(6));
    std::memcpy(owned, "\xFF\xFEx\0y\0", 6);
    s = CFStringCreateWithBytesNoCopy(nullptr, owned, 6, kCFStringEncodingUTF16LE, true,
                                      kCFAllocatorDefault);
    EXPECT_EQ(Utf8Of(s), "xy");  // the external representation's mark is skipped
    CFRetain(s);
    CFRelease(s);
    EXPECT_EQ(CFStringGetLength(s), 2);  // still alive after one of two releases
    CFRelease(s);
}

TEST(CFStringStandIn, GetCStringNeedsRoomForTheNul) {
    CFStringRef s = CFStringCreateWithCString(nullptr, "\xC3\xA9t\xC3\xA9", kCFStringEncodingUTF8);
    char buffer[6];
    EXPECT_FALSE(CFStringGetCString(s, buffer, 5, kCFStringEncodingUTF8));
    ASSERT_TRUE(CFStringGetCString(s, buffer, 6, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "\xC3\xA9t\xC3\xA9");
    EXPECT_FALSE(CFStringGetCString(s, buffer, 6, kCFStringEncodingASCII));
    EXPECT_EQ(CFStringGetCStringPtr(s, kCFStringEncodingUTF8), nullptr);
    CFRelease(s);
}

TEST(CFStringStandIn, SizesAndLimits) {
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(4, kCFStringEncodingUTF8), 12);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 2, kCFStringEncodingUTF8), kCFNotFound);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(-1, kCFStringEncodingUTF8), kCFNotFound);

    CFStringRef s = CFStringCreateWithCString(nullptr, "abc", kCFStringEncodingUTF8);
    EXPECT_EQ(CFStringCreateMutableCopy(nullptr, 2, s), nullptr);
    CFMutableStringRef m = CFStringCreateMutableCopy(nullptr, 3, s);
    EXPECT_EQ(Utf8Of(m), "abc");
    CFRelease(m);
    CFRelease(s);
}

}  // namespace
