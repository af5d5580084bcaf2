#include <dischive/random_id.h>
#include <dischive/version.h>

#include <iostream>

int main() {
  std::cout << dischive::AgentText() << ' ' << dischive::NewRandomIdentifier() << '\n';
  return 0;
}
