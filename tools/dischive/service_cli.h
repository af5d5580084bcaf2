// Shared parts of the collection-service commands (service, sync, notify):
// the connection built from the settings, and the account from the catalogue.
#pragma once

#include <string>
#include <vector>

#include "cli.h"
#include "dischive/catalog.h"
#include "dischive/service.h"

namespace dischive::cli {

/// The service host from "internet2"/"service_host" (built-in default when
/// empty); a usage error when it is not "host" or "host:port".
std::string CliServiceHost(const Context& context);

/// A connection to the configured host with the configured proxy and agent;
/// with -vv the exchanges are logged to `log` and printed by the caller.
ServiceConnection CliServiceConnection(const Context& context, std::string& log);

/// The "login" and "password" params from the catalogue's "sync_login" and
/// "sync_dbkey"; a failure naming the catalogue and the command to run when
/// either is missing.
std::vector<ServiceParam> CliServiceAccount(CatalogEngine& catalog);

/// A 16-hex-digit album identifier in upper case; a usage error otherwise.
std::string CliAlbumId(const std::string& text);

/// Throws the failure of a service request: the service's own message when it
/// answered with one, else the code's text.
[[noreturn]] void FailService(HResult code, const std::string& what);

}  // namespace dischive::cli
