#include "apps/terminal/binary_stream.h"

#include <fcntl.h>
#include <io.h>

void make_binary(std::FILE* stream) {
  _setmode(_fileno(stream), _O_BINARY);
}
