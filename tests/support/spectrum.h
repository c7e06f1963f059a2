// What is heard in a piece of sound: how loud one frequency is in it, and which is the loudest.
#pragma once

#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <span>

// The amplitude of the sine of this frequency, 0 to about 1. Bands are 4 / (length in seconds) wide
// (Hann window).
inline double tone_amplitude(std::span<const float> samples, double rate, double hz) {
  constexpr double TURN = 2 * std::numbers::pi;
  const double count = static_cast<double>(samples.size());
  const std::complex<double> step = std::polar(1.0, -TURN * hz / rate);
  std::complex<double> phase = 1.0;
  std::complex<double> sum = 0.0;
  for (std::size_t i = 0; i < samples.size(); ++i, phase *= step) {
    const double window = 1.0 - std::cos(TURN * (static_cast<double>(i) + 0.5) / count);
    sum += phase * (window * static_cast<double>(samples[i]));
  }
  return 2.0 * std::abs(sum) / count;
}

// The loudest whole frequency from `low_hz` to `high_hz`; 0 where all is silent.
inline int loudest_hz(std::span<const float> samples, double rate, int low_hz, int high_hz) {
  int loudest = 0;
  double amplitude = 1e-4;  // below it, silence: -80 dB
  for (int hz = low_hz; hz <= high_hz; ++hz) {
    const double here = tone_amplitude(samples, rate, hz);
    if (here > amplitude) {
      amplitude = here;
      loudest = hz;
    }
  }
  return loudest;
}
