// What a window measures: how old its pictures are when they are shown, by stage, over the last
// second and over the run. Pure; the window's thread.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <nlohmann/json.hpp>

#include "apps/client/statistics.h"
#include "apps/client/view/overlay.h"

class ViewStatistics {
 public:
  ViewStatistics();

  // A picture has been shown; `present_us`: from the end of its decoding to then.
  void shown(const FrameTimes& times, double present_us);

  struct Second {
    std::vector<StageFigure> stages;
    double fps = 0;
  };
  Second finish_second(double seconds);

  std::uint64_t pictures() const { return pictures_; }
  nlohmann::json latency_report() const;

 private:
  enum Row { PAINT, ENCODE, TRANSPORT, QUEUE, DECODE, PRESENT, TOTAL, ROWS };
  static const char* row_name(std::size_t row);
  struct Samples {
    std::vector<double> second;
    LatencySamples run;
  };

  void add(Row row, double us);

  std::array<Samples, ROWS> rows_;
  std::uint64_t pictures_ = 0;
  std::uint32_t second_pictures_ = 0;
};
