#pragma once

// The tests of the kit stand in Halvex::Kit, where Testing is the namespace of its test doubles.
// With this they find there what tests/support has, too.
namespace Halvex::Testing {}
namespace Halvex::Kit::Testing {
using namespace Halvex::Testing;
}
