#include "worker/main.h"

int main(int argc, char** argv) {
  return worker_main({argv + 1, argv + argc});
}
