#include "host/windows/qos.h"

const QosCalls& system_qos() {
  static const QosCalls calls = load_qos(L"qwave.dll");
  return calls;
}
