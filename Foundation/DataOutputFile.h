#pragma once

#include "Foundation/Export.h"
#include "Foundation/IDataOutput.h"
#include "Foundation/ioPath.h"

#include <boost/smart_ptr/intrusive_ptr.hpp>

namespace Halvex::Core {

/// A regular file on disk as a sink of bytes, which never leaves a part of a file behind as if it
/// were the whole.
///
/// After a failed or short write, or a failed close, it logs one ERROR line, accepts nothing more,
/// and when the last owner lets go it removes the file: whoever did not look at Write's results
/// then finds nothing to rename. It removes only the very file that it opened, never one that has
/// taken its place at the path since.
class HALVEX_EXPORT DataOutputFile {
public:
    /// Creates the file, or empties it if it is there. A symbolic link at the path is not
    /// followed. Throws Halvex::Exception, with the system's error number and text as
    /// ErrorDetails, when the file cannot be made or is not a regular file.
    static boost::intrusive_ptr<IDataOutput> Create(const ioPath& path);
};

} // namespace Halvex::Core
