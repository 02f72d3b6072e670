#pragma once

#include "Foundation/Export.h"

#include <boost/exception/error_info.hpp>
#include <boost/exception/exception.hpp>
#include <boost/exception/get_error_info.hpp>
#include <boost/exception/info.hpp>

#include <exception>
#include <string>

namespace Halvex {

/// What the foundation layer throws when the system refuses an operation.
///
/// Carries the system's error number and text as ErrorDetails:
///
///     catch (const Halvex::Exception& exception) {
///         const std::string* details = boost::get_error_info<Halvex::ErrorDetails>(exception);
class HALVEX_EXPORT Exception : public std::exception, public boost::exception {
public:
    const char* what() const noexcept override { return "Halvex::Exception"; }
};

/// Names the details text among the data that an Exception can carry.
struct TagDetails {};

/// The details text of an Exception, such as "2 (No such file or directory)".
using ErrorDetails = boost::error_info<TagDetails, std::string>;

} // namespace Halvex
