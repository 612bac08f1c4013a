// Prints the attached instruments.
#include <iostream>

#include "orvo/timing/device.h"

int main() {
  for (const auto& found : orvo::timing::Device::discover()) {
    std::cout << found.port << ' ' << found.identity.description << '\n';
  }
}
