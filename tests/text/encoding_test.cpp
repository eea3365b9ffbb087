// Tests of the name and path conversions between platform strings, UTF-8 and UTF-16.
#include "text/encoding.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <CoreFoundation/CFString.h>

#include "text/encoding_iconv.h"

namespace {

// Wire form: little-endian code units, placed `offset` bytes into the buffer so that
// unaligned fields are covered too.
std::vector<uint8_t> WireBytes(const std::u16string& units, size_t offset = 0) {
    std::vector<uint8_t> bytes(offset);
    for (char16_t u : units) {
        bytes.push_back(static_cast<uint8_t>(u & 0xFF));
        bytes.push_back(static_cast<uint8_t>(u >> 8));
    }
    return bytes;
}

std::string FromWire(const std::u16string& units, size_t offset = 0) {
    const std::vector<uint8_t> bytes = WireBytes(units, offset);
    std::string out = "stale";
    qvx::Utf16ToNormalizedUtf8(bytes.data() + offset, bytes.size() - offset, out);
    return out;
}

TEST(Utf16ToNormalizedUtf8, DecomposesPrecomposedLetters) {
    EXPECT_EQ(FromWire(u"\u00e9"), "\x65\xCC\x81");
    EXPECT_EQ(FromWire(u"Caf\u00e9.txt", 1), "Cafe\xCC\x81.txt");
    // Already decomposed text passes unchanged.
    EXPECT_EQ(FromWire(u"Cafe\u0301"), "Cafe\xCC\x81");
    EXPECT_EQ(FromWire(u"plain/name"), "plain/name");
}

TEST(Utf16ToNormalizedUtf8, NoBytesOrBytesThatAreNoTextGiveEmpty) {
    const std::vector<uint8_t> odd = {'a', 0, 'b'};
    std::string out = "stale";
    qvx::Utf16ToNormalizedUtf8(odd.data(), odd.size(), out);
    EXPECT_EQ(out, "");
    out = "stale";
    qvx::Utf16ToNormalizedUtf8(nullptr, 0, out);
    EXPECT_EQ(out, "");
    EXPECT_EQ(FromWire(u""), "");

    EXPECT_EQ(FromWire(u"a\xD83D"), "");  // high surrogate at the end
    EXPECT_EQ(FromWire(u"\xDE00"
                       u"a"),
              "");  // lone low surrogate
    EXPECT_EQ(FromWire(u"\xD83D"
                       u"a"),
              "");                             // high surrogate without its low half
    EXPECT_EQ(FromWire(u"\xD83D\xD83D"), "");  // two high halves
}

TEST(Utf8ToUtf16, GivesLittleEndianDecodedUnitsWithoutMark) {
    EXPECT_EQ(qvx::Utf8ToUtf16(std::string("a")), u"a");
    EXPECT_EQ(qvx::Utf8ToUtf16(std::string("\xC3\xA9")), std::u16string(1, 0x00E9));
    EXPECT_EQ(qvx::Utf8ToUtf16(std::string("\xE2\x82\xAC")), std::u16string(1, 0x20AC));
    EXPECT_EQ(qvx::Utf8ToUtf16(std::string("\xF0\x9F\x98\x80")), u"\xD83D\xDE00");
    // A U+FEFF that the name itself starts with is data, not a mark to strip.
    EXPECT_EQ(qvx::Utf8ToUtf16(std::string("\xEF\xBB\xBFx")), u"\xFEFFx");
}

TEST(Utf8ToUtf16, EmptyOrInvalidUtf8OrAnAreaBeyondTheLargestSizeGivesEmptyNotPartial) {
    EXPECT_EQ(qvx::Utf8ToUtf16(std::string()), u"");
    EXPECT_EQ(qvx::Utf8ToUtf16(nullptr, 0), u"");
    for (const char* bad :
         {"\x80", "abc\xFF", "ok\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xED\xBF\xBF",
          "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "name\xE2\x82", "\xF0\x9F\x98", "\xC3(x"}) {
        EXPECT_EQ(qvx::Utf8ToUtf16(std::string(bad)), u"") << "input: " << bad;
    }
    // Twice this count does not fit in size_t; the input must not even be read.
    const char one = 'a';
    EXPECT_EQ(qvx::Utf8ToUtf16(&one, SIZE_MAX), u"");
    EXPECT_EQ(qvx::Utf8ToUtf16(&one, SIZE_MAX / 2 + 1), u"");
}

TEST(Utf8ToUtf16Via, GrowsAreaAndDropsMarkOfPlainUtf16) {
    // Plain "UTF-16" writes a byte-order mark, so one input byte needs four output
    // bytes against an area of two: only the doubling lets this succeed.
    EXPECT_EQ(qvx::text_detail::Utf8ToUtf16Via("UTF-16", "a", 1), u"a");
    const std::string mixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const std::u16string expected = qvx::Utf8ToUtf16(mixed);
    ASSERT_EQ(expected, u"a\u00e9\u20ac\xD83D\xDE00");
    EXPECT_EQ(qvx::text_detail::Utf8ToUtf16Via("UTF-16", mixed.data(), mixed.size()), expected);
    EXPECT_EQ(qvx::text_detail::Utf8ToUtf16Via("UTF-16BE", mixed.data(), mixed.size()), expected);
    EXPECT_EQ(qvx::text_detail::Utf8ToUtf16Via("UTF-16", "\xFF", 1), u"");
    EXPECT_EQ(qvx::text_detail::Utf8ToUtf16Via("NO-SUCH-CODE", "a", 1), u"");
}

TEST(RoundTrip, Utf8ThroughWireComesBackDecomposed) {
    struct Case {
        std::string in;
        std::string nfd;
    };
    const Case cases[] = {
        // Hangul syllables decompose into their jamo.
        {"\uD55C\uAE00", "\u1112\u1161\u11AB\u1100\u1173\u11AF"},
        // Characters outside the basic plane travel as surrogate pairs.
        {"\U0001F600 \U0001D11E.mp3", "\U0001F600 \U0001D11E.mp3"},
        {"R\u00e9sum\u00e9 \u00c5ngstr\u00f6m", "Re\u0301sume\u0301 A\u030Angstro\u0308m"},
        {"dir/sub dir/file.txt", "dir/sub dir/file.txt"},
    };
    for (const Case& c : cases) {
        const std::u16string units = qvx::Utf8ToUtf16(c.in);
        ASSERT_FALSE(units.empty()) << c.in;
        EXPECT_EQ(FromWire(units, 3), c.nfd) << c.in;
    }
}

TEST(CFStringToUtf8, ReadsBothDirectPointerAndBuffer) {
    CFStringRef ascii =
        CFStringCreateWithCString(kCFAllocatorDefault, "name.txt", kCFStringEncodingUTF8);
    ASSERT_NE(ascii, nullptr);
    ASSERT_NE(CFStringGetCStringPtr(ascii, kCFStringEncodingUTF8), nullptr);
    std::string out;
    EXPECT_EQ(qvx::CFStringToUtf8(ascii, out), qvx::kConvOk);
    EXPECT_EQ(out, "name.txt");

    struct Case {
        CFStringRef string;
        std::string expected;
    };
    // Mutable and non-ASCII strings hand out no pointer. Texts made only of the widest
    // characters per code unit fill the computed buffer to the last byte.
    const Case cases[] = {
        {CFStringCreateMutableCopy(kCFAllocatorDefault, 0, ascii), "name.txt"},
        {CFStringCreateWithCString(nullptr, "\u20ac\u20ac\u20ac", kCFStringEncodingUTF8),
         "\u20ac\u20ac\u20ac"},
        {CFStringCreateWithCString(nullptr, "\U0001F600\U0001F600", kCFStringEncodingUTF8),
         "\U0001F600\U0001F600"},
    };
    for (const Case& c : cases) {
        ASSERT_NE(c.string, nullptr);
        EXPECT_EQ(CFStringGetCStringPtr(c.string, kCFStringEncodingUTF8), nullptr);
        out = "stale";
        EXPECT_EQ(qvx::CFStringToUtf8(c.string, out), qvx::kConvOk);
        EXPECT_EQ(out, c.expected);
        CFRelease(c.string);
    }
    CFRelease(ascii);

    out = "kept";
    EXPECT_EQ(qvx::CFStringToUtf8(nullptr, out), qvx::kConvFailed);
    EXPECT_EQ(out, "kept");
}

TEST(Conversions, RunConcurrently) {
    const std::string name = "\uD55C R\u00e9sum\u00e9 \U0001F600";
    const std::string nfd = "\u1112\u1161\u11AB Re\u0301sume\u0301 \U0001F600";
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                if (FromWire(qvx::Utf8ToUtf16(name)) != nfd) ++failures[t];
            }
        });
    }
    for (std::thread& th : threads) th.join();
    for (int f : failures) EXPECT_EQ(f, 0);
}

}  // namespace
