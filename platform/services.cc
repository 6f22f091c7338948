#include "platform/services.h"

#include <cstdio>
#include <cstdlib>

namespace volorn {
namespace {

const Services* installed = nullptr;

[[noreturn]] void abortWith(const char* text) {
  std::fputs(text, stderr);
  std::abort();
}

}  // namespace

ScopedServices::ScopedServices(const Services& services) {
  if (installed) abortWith("volorn: a platform is installed already\n");
  installed = &services;
}

ScopedServices::~ScopedServices() {
  installed = nullptr;
}

const Services& Current() {
  if (!installed) abortWith("volorn: no platform is installed\n");
  return *installed;
}

}  // namespace volorn
