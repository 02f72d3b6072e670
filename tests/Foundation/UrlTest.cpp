#include "Foundation/Url.h"

#include <gtest/gtest.h>

namespace Halvex::Networking {
namespace {

TEST(Url, AcceptsHttpAndHttpsWithAHost) {
    EXPECT_TRUE(Url("http://example.org").isValid());
    EXPECT_TRUE(Url("HTTPS://example.org:8443/a?b#c").isValid());
}

} // namespace
} // namespace Halvex::Networking
