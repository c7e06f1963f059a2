#include "apps/client/report.h"

#include <cmath>
#include <cstdio>
#include <fstream>

#include "apps/client/picture.h"

namespace {

nlohmann::json report(HostSession& session, HostLink& link) {
  nlohmann::json json;
  {
    std::lock_guard lock(session.main().decoder().statistics_mutex());
    json = session.main().decoder().statistics().report(session.seconds());
  }
  const lund_hello_ack& ack = session.main().granted();
  json["stream"] = {{"codec", ack.codec == 1 ? "HEVC" : "H.264"},
                    {"width", ack.width},
                    {"height", ack.height},
                    {"fps", ack.fps},
                    {"bitrate_kbps", ack.bitrate_kbps},
                    {"payload_bytes", ack.max_datagram}};
  const PathHistory& paths = session.paths();
  json["path"] = {{"class", lund_path_name(paths.path_class())}, {"host", paths.address()}};
  json["paths"] = paths.report(session.main().frame_counts());
  json["reconnects"] = nlohmann::json::array();
  for (const Reconnect& reconnect : session.reconnects())
    json["reconnects"].push_back({{"at_s", std::round(reconnect.at_s * 1000) / 1000},
                                  {"gap_ms", std::round(reconnect.gap_ms)},
                                  {"reason", reconnect.reason}});
  json["hello_to_first_frame_ms"] = session.hello_to_first_frame_ms();
  json["datagrams_dropped_on_purpose"] = link.dropped_on_purpose();
  return json;
}

}  // namespace

bool write_results(const std::filesystem::path& out, HostSession& session, HostLink& link,
                   std::string* error) {
  std::ofstream file(out / "report.json", std::ios::trunc);
  file << report(session, link).dump(2) << '\n';
  file.close();
  if (!file) {
    *error = "cannot write " + (out / "report.json").string();
    return false;
  }
  const DecodedPicture* picture = session.main().decoder().last_picture();
  if (picture && !write_png(out / "last_frame.png", to_rgb(*picture))) {
    *error = "cannot write " + (out / "last_frame.png").string();
    return false;
  }
  return true;
}

std::string summary(HostSession& session, HostLink& link) {
  const nlohmann::json json = report(session, link);
  const lund_hello_ack& ack = session.main().granted();
  char line[320];
  std::snprintf(line, sizeof line,
                "%s %dx%d via %s %s: %u frames in %.1f s (%.1f fps, %.2f Mbps), %u lost, "
                "%u recovered, rtt %.2f ms, first frame %.0f ms after HELLO\n",
                ack.codec == 1 ? "HEVC" : "H.264", ack.width, ack.height,
                json["path"]["class"].get<std::string>().c_str(),
                json["path"]["host"].get<std::string>().c_str(), json["frames"].get<unsigned>(),
                json["seconds"].get<double>(), json["fps"].get<double>(),
                json["mbps"].get<double>(), json["frames_lost"].get<unsigned>(),
                json["frames_recovered"].get<unsigned>(), json["rtt_ms"].get<double>(),
                json["hello_to_first_frame_ms"].get<double>());
  std::string text = line;
  if (!json["latency_ms"].is_object()) return text;
  text += "latency, ms (p50 / p95):";
  for (std::size_t i = 0; i < static_cast<std::size_t>(Stage::Count); ++i) {
    const char* name = stage_name(static_cast<Stage>(i));
    if (!json["latency_ms"].contains(name)) continue;
    const auto& stage = json["latency_ms"][name];
    std::snprintf(line, sizeof line, " %s %.2f / %.2f%s", name, stage["p50"].get<double>(),
                  stage["p95"].get<double>(),
                  i + 1 < static_cast<std::size_t>(Stage::Count) ? "," : "");
    text += line;
  }
  return text + "\n";
}
