// Error construction from checked calls: the failure table, the captured source text and the
// "NSXError" exception.
#include "support/CheckedCall.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

using namespace vell;

namespace {

int failingStatus()
{
    return -50;
}

const char* nullName()
{
    return nullptr;
}

} // namespace

TEST(NSXMakeErrorTest, FollowsTheFailureTable)
{
    const auto build = [](const char* typeCode, std::int64_t value) {
        Error error;
        errno = ENOENT;
        NSXMakeErrorImp(typeCode, value, "/src/dir/File.cpp", 42, "method", "call()", &error);
        return error;
    };
    const std::pair<const char*, std::int64_t> harmless[] = {
        {"*", 0x1000}, {"r^v", 0}, {"@", 1}, {"c", 1}, {"I", 5},
        {"i", 0},      {"l", 0},   {"q", 0}, {"d", 0}, {"", 0},
    };
    for (const auto& [typeCode, value] : harmless) {
        SCOPED_TRACE(std::string(typeCode) + " " + std::to_string(value));
        EXPECT_EQ(build(typeCode, value).domain(), "");
    }
    const struct {
        const char* typeCode;
        std::int64_t value;
        std::string_view domain;
        long code;
    } failures[] = {
        {"*", 0, kNULLPointerErrorDomain, -1},
        {"^v", 0, kNULLPointerErrorDomain, -1},
        {"r*", 0, kNULLPointerErrorDomain, -1},
        {"@", 0, NSCocoaErrorDomain, -1},
        {"c", 0, kBOOLErrorDomain, -1},
        {"I", 0, NSMachErrorDomain, -1},
        {"I", 0xFFFFFFFF, NSMachErrorDomain, -1},
        {"i", -50, NSMachErrorDomain, -50},
        {"i", 1852797029, NSMachErrorDomain, 1852797029},
        {"i", -1, NSPOSIXErrorDomain, ENOENT}, // -1 carries errno
        {"l", -10875, NSOSStatusErrorDomain, -10875},
        {"l", 0x1FFFFFFFFLL, NSOSStatusErrorDomain, -1}, // low 32 bits, sign-extended
        {"s", 7, NSOSStatusErrorDomain, 7},
    };
    for (const auto& row : failures) {
        SCOPED_TRACE(std::string(row.typeCode) + " " + std::to_string(row.value));
        const Error error = build(row.typeCode, row.value);
        EXPECT_EQ(error.domain(), row.domain);
        EXPECT_EQ(error.code(), row.code);
        EXPECT_EQ(error.stringForKey(kReportingFileKey), "/src/dir/File.cpp");
        EXPECT_EQ(error.integerForKey(kReportingLineKey), 42);
        EXPECT_EQ(error.stringForKey(kReportingMethodKey), "method");
        EXPECT_EQ(error.stringForKey(kOriginKey), "call()");
    }
    // A null out-error pointer and null texts are allowed.
    NSXMakeErrorImp("i", -1, "f", 1, "m", "o", nullptr);
    NSXMakeErrorImp(nullptr, 0, nullptr, 0, nullptr, nullptr, nullptr);

    const Error error = NSXMakeErrorWithErrstr_tImp("disk full", "a/b.cpp", 7, "save");
    EXPECT_EQ(error.domain(), "errstr_t");
    EXPECT_EQ(error.code(), 0);
    EXPECT_EQ(error.stringForKey("errstr_t"), "disk full");
    EXPECT_EQ(error.localizedDescription(), "disk full");
    EXPECT_EQ(error.integerForKey(kReportingLineKey), 7);
    EXPECT_FALSE(error.stringForKey(kOriginKey));
}

TEST(CheckedCallTest, CapturesTheExpressionTextAndPlace)
{
    Error error;
    const int expectedLine = __LINE__ + 1;
    EXPECT_FALSE(VELL_CHECK(failingStatus(), &error));
    EXPECT_EQ(error.domain(), NSMachErrorDomain);
    EXPECT_EQ(error.code(), -50);
    EXPECT_EQ(error.stringForKey(kOriginKey), "failingStatus()");
    EXPECT_EQ(error.integerForKey(kReportingLineKey), expectedLine);
    EXPECT_EQ(error.stringForKey(kReportingMethodKey), "TestBody");
    EXPECT_NE(error.stringForKey(kReportingFileKey)->find("CheckedCallTest.cpp"),
              std::string::npos);

    // The type code follows the expression's C++ type.
    EXPECT_FALSE(VELL_CHECK(nullName(), &error));
    EXPECT_EQ(error.domain(), kNULLPointerErrorDomain);
    EXPECT_FALSE(VELL_CHECK(std::shared_ptr<int>(), &error));
    EXPECT_EQ(error.domain(), NSCocoaErrorDomain);
    EXPECT_FALSE(VELL_CHECK(false, &error));
    EXPECT_EQ(error.domain(), kBOOLErrorDomain);
    EXPECT_FALSE(VELL_CHECK(short(3), &error));
    EXPECT_EQ(error.domain(), NSOSStatusErrorDomain);
    EXPECT_TRUE(VELL_CHECK(static_cast<const int*>(nullptr), &error));
    EXPECT_TRUE(VELL_CHECK(0, nullptr));
}

TEST(CheckedCallTest, ThrowRaisesNSXErrorWithTheErrorAndLogWritesTheLine)
{
    try {
        VELL_CHECK_THROW(failingStatus());
        FAIL() << "expected an exception";
    } catch (const NSXException& exception) {
        EXPECT_STREQ(exception.name(), "NSXError");
        EXPECT_EQ(exception.error().code(), -50);
        EXPECT_EQ(exception.reason(), exception.error().description());
        EXPECT_NE(exception.reason().find("failingStatus()"), std::string::npos);
    }
    EXPECT_NO_THROW(VELL_CHECK_THROW(0));

    test::LogCapture capture;
    EXPECT_FALSE(VELL_CHECK_LOG(failingStatus()));
    EXPECT_TRUE(VELL_CHECK_LOG(0));
    logErrorLine("/a/b/Thing.mm", "Failed to start AUGraph.");
    logErrorLine("Plain.cpp", "x");
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].rfind("CheckedCallTest.cpp : (ERROR) Error Domain=NSMachErrorDomain", 0), 0u)
        << lines[0];
    EXPECT_EQ(lines[1], "Thing.mm : (ERROR) Failed to start AUGraph.");
    EXPECT_EQ(lines[2], "Plain.cpp : (ERROR) x");
}
