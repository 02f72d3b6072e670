#include "Foundation/SystemError.h"

#include "Foundation/Exception.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace Halvex {
namespace {

TEST(SystemError, TextIsTheNumberAndTheSystemsWords) {
    EXPECT_EQ(SystemErrorText(ENOENT), "2 (No such file or directory)");
}

TEST(SystemError, IsThrownWithItsTextAsDetails) {
    try {
        ThrowSystemError(EACCES);
    } catch (const Exception& exception) {
        const std::string* const details = boost::get_error_info<ErrorDetails>(exception);
        ASSERT_NE(details, nullptr);
        EXPECT_EQ(*details, "13 (Permission denied)");
    }
}

TEST(SystemError, PathIsPassedOnToTheLetter) {
    const std::string path = "a//b \xc3\xa4";
    EXPECT_STREQ(CheckedSystemPath(path), "a//b \xc3\xa4");
}

TEST(SystemError, PathWithAZeroByteIsRefused) {
    const std::string path("a\0b", 3);
    EXPECT_THROW(CheckedSystemPath(path), Exception);
}

} // namespace
} // namespace Halvex
