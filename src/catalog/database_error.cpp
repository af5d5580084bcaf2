#include "dischive/database_error.h"

namespace dischive {

FatalDatabaseError::FatalDatabaseError(const std::string& path, const std::string& message)
    : std::runtime_error(path.empty() ? message : path + ": " + message), path_(path) {}

}  // namespace dischive
