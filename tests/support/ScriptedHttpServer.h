#pragma once

#include "ResourceKit/Testing/ScriptedHttpServer.h"
#include "support/TestAuthority.h"
#include "support/Waiting.h"

namespace Halvex::Testing {

using Kit::Testing::GeneratedBytes;
using Kit::Testing::GzipStored;
using Kit::Testing::Reply;
using Kit::Testing::ScriptedHttpServer;

} // namespace Halvex::Testing
