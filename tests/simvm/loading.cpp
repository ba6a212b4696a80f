// A library whose constructor takes as long as the one who opens it wants.
#include <cstdlib>

namespace {

__attribute__((constructor)) void Construct() {
    if (const char *body = getenv("SIMVM_CONSTRUCTOR"))
        reinterpret_cast<void (*)()>(strtoull(body, nullptr, 16))();
}

} // namespace
