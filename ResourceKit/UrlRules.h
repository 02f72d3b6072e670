#pragma once

#include <string>

namespace Halvex::Kit {

/// The file's name at the end of an address, without the percent-encoding, query and fragment.
/// Empty when there is none that could name a file.
std::string FileNameOf(const std::string& url);

/// Whether paths can follow the address: it has no query and no fragment.
bool CanBeABase(const std::string& url);

/// A path as it is written in an address: what has a meaning there, or is no ASCII, is encoded.
std::string EncodePath(const std::string& path);

} // namespace Halvex::Kit
