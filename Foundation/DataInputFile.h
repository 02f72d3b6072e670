#pragma once

#include "Foundation/Export.h"
#include "Foundation/IDataInput.h"
#include "Foundation/ioPath.h"

#include <boost/smart_ptr/intrusive_ptr.hpp>

namespace Halvex::Core {

/// A regular file on disk as a source of bytes.
class HALVEX_EXPORT DataInputFile {
public:
    /// Opens the file for reading. Throws Halvex::Exception, with the system's error number and
    /// text as ErrorDetails, when there is none, when it may not be read or when it is not a
    /// regular file.
    static boost::intrusive_ptr<IDataInput> Create(const ioPath& path);
};

} // namespace Halvex::Core
