// Plays a sine of half the full scale on both sides, tone_player HZ, until it is ended. It says
// "plays" once the device has been given it.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <vector>

#include "control/windows/handles.h"
// After what handles.h includes.
#include <mmsystem.h>

int main(int count, char** arguments) {
  constexpr int RATE = 48'000;
  const int hz = count > 1 ? std::atoi(arguments[1]) : 440;
  WAVEFORMATEX format = {};
  format.wFormatTag = WAVE_FORMAT_PCM;
  format.nChannels = 2;
  format.nSamplesPerSec = RATE;
  format.wBitsPerSample = 16;
  format.nBlockAlign = 4;
  format.nAvgBytesPerSec = RATE * format.nBlockAlign;
  HWAVEOUT device = nullptr;
  if (waveOutOpen(&device, WAVE_MAPPER, &format, 0, 0, CALLBACK_NULL) != MMSYSERR_NOERROR) return 1;

  std::vector<std::int16_t> second;  // a whole number of periods, so that it can be repeated
  for (int i = 0; i < RATE; ++i) {
    const double angle = 2 * std::numbers::pi * hz * i / RATE;
    second.insert(second.end(), 2,
                  static_cast<std::int16_t>(std::lround(16'384 * std::sin(angle))));
  }
  WAVEHDR block = {};
  block.lpData = reinterpret_cast<char*>(second.data());
  block.dwBufferLength = static_cast<DWORD>(second.size() * sizeof second[0]);
  block.dwFlags = WHDR_BEGINLOOP | WHDR_ENDLOOP;
  block.dwLoops = MAXDWORD;
  if (waveOutPrepareHeader(device, &block, sizeof block) != MMSYSERR_NOERROR) return 1;
  if (waveOutWrite(device, &block, sizeof block) != MMSYSERR_NOERROR) return 1;
  std::puts("plays");
  std::fflush(stdout);
  Sleep(INFINITE);
}
