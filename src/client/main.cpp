#include <malloc.h>

#include "src/client/qavel-client.h"

int main(int argc, char** argv) {
  // glibc raises its mmap threshold after each large block freed (up to 32 MB); large plugin
  // outputs are then carved from the workers' arenas and stay resident once freed. A fixed
  // threshold keeps every large block in a mapping of its own, given back when freed.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  return qavelClientMain(argc, argv);
}
