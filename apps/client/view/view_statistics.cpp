#include "apps/client/view/view_statistics.h"

namespace {

constexpr std::size_t PICTURES_A_SECOND = 240;  // the most that a host sends

double stage_us(const FrameTimes& times, Stage stage) {
  return times.us[static_cast<std::size_t>(stage)];
}

}  // namespace

ViewStatistics::ViewStatistics() {
  for (Samples& row : rows_) row.second.reserve(PICTURES_A_SECOND);
}

const char* ViewStatistics::row_name(std::size_t row) {
  constexpr const char* NAMES[] = {"paint",  "encode",  "transport", "queue",
                                   "decode", "present", "total"};
  return NAMES[row];
}

void ViewStatistics::add(Row row, double us) {
  rows_[row].second.push_back(us);
  rows_[row].run.add(us);
}

void ViewStatistics::shown(const FrameTimes& times, double present_us) {
  ++pictures_;
  ++second_pictures_;
  if (times.painted) add(PAINT, stage_us(times, Stage::Paint));
  add(ENCODE, stage_us(times, Stage::Encode));
  add(TRANSPORT, stage_us(times, Stage::Transport));
  add(QUEUE, stage_us(times, Stage::Queue));
  add(DECODE, stage_us(times, Stage::Decode));
  add(PRESENT, present_us);
  add(TOTAL, stage_us(times, Stage::Total) + present_us);
}

ViewStatistics::Second ViewStatistics::finish_second(double seconds) {
  Second second;
  second.fps = seconds > 0 ? second_pictures_ / seconds : 0;
  second_pictures_ = 0;
  for (std::size_t row = ENCODE; row < ROWS; ++row) {
    std::vector<double>& samples = rows_[row].second;
    second.stages.push_back({row_name(row), percentile(samples, 50) / 1000,
                             percentile(samples, 95) / 1000, !samples.empty()});
  }
  for (Samples& row : rows_) row.second.clear();
  return second;
}

nlohmann::json ViewStatistics::latency_report() const {
  nlohmann::json report = nlohmann::json::object();
  for (std::size_t row = 0; row < ROWS; ++row)
    if (rows_[row].run.size() > 0) report[row_name(row)] = rows_[row].run.report();
  return report;
}
