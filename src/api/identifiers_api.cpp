// C entry points: identifiers.
#include "api/c_string.h"
#include "dhvapi.h"
#include "dischive/random_id.h"

extern "C" char* NewRecordIdentifier(void) {
  return dischive::api::DupString(dischive::NewRandomIdentifier());
}
