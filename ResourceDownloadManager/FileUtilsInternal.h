#pragma once

#include "Foundation/IDataInput.h"
#include "Foundation/IDataOutput.h"
#include "Foundation/ioPath.h"

#include <boost/smart_ptr/intrusive_ptr.hpp>

namespace Halvex::App {

/// Opens a file; empty, with an ERROR line, when that fails. Neither throws.
boost::intrusive_ptr<Core::IDataInput> OpenFileForReading(const ioPath& path);
boost::intrusive_ptr<Core::IDataOutput> OpenFileForWriting(const ioPath& path);

} // namespace Halvex::App
