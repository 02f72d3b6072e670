#include "Foundation/Exception.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>

namespace Halvex {
namespace {

TEST(Exception, IsAStandardExceptionWithItsNameAsText) {
    try {
        throw Exception();
    } catch (const std::exception& exception) {
        EXPECT_STREQ(exception.what(), "Halvex::Exception");
    }
}

TEST(Exception, HasNoDetailsByItself) {
    const Exception exception;
    EXPECT_EQ(boost::get_error_info<ErrorDetails>(exception), nullptr);
}

TEST(Exception, CarriesTheDetailsAttachedToIt) {
    try {
        throw Exception() << ErrorDetails("the details");
    } catch (const boost::exception& exception) {
        const std::string* const details = boost::get_error_info<ErrorDetails>(exception);
        ASSERT_NE(details, nullptr);
        EXPECT_EQ(*details, "the details");
    }
}

TEST(Exception, KeepsItsDetailsWhenItIsThrownAgainElsewhere) {
    std::exception_ptr kept;
    try {
        throw Exception() << ErrorDetails("the details");
    } catch (...) {
        kept = std::current_exception();
    }
    try {
        std::rethrow_exception(kept);
    } catch (const Exception& exception) {
        const std::string* const details = boost::get_error_info<ErrorDetails>(exception);
        ASSERT_NE(details, nullptr);
        EXPECT_EQ(*details, "the details");
    }
}

TEST(Exception, KeepsDetailsApartFromOtherTexts) {
    struct OtherTag {};
    using Other = boost::error_info<OtherTag, std::string>;
    Exception exception;
    exception << Other("something else");
    EXPECT_EQ(boost::get_error_info<ErrorDetails>(exception), nullptr);
}

} // namespace
} // namespace Halvex
