#include "apps/client/report.h"

#include <cmath>
#include <cstdio>

#include "apps/client/json_report.h"
#include "apps/client/picture.h"
#include "connection/clock.h"

namespace {

nlohmann::json stream_values(const lund_hello_ack& ack) {
  return {{"codec", codec_name(ack.codec)},
          {"width", ack.width},
          {"height", ack.height},
          {"fps", ack.fps},
          {"bitrate_kbps", ack.bitrate_kbps},
          {"payload_bytes", ack.max_datagram}};
}

nlohmann::json measured(ScreenStream& stream, double seconds) {
  std::lock_guard lock(stream.decoder().statistics_mutex());
  return stream.decoder().statistics().report(seconds);
}

nlohmann::json report(HostSession& session, HostLink& link) {
  nlohmann::json json = measured(session.main(), session.seconds());
  json["stream"] = stream_values(session.main().granted());
  const PathHistory& paths = session.paths();
  json["path"] = {{"class", lund_path_name(paths.path_class())}, {"host", paths.address()}};
  json["paths"] = paths.report(session.main().frame_counts());
  json["reconnects"] = nlohmann::json::array();
  for (const Reconnect& reconnect : session.reconnects())
    json["reconnects"].push_back({{"at_s", rounded(reconnect.at_s)},
                                  {"gap_ms", std::round(reconnect.gap_ms)},
                                  {"reason", reconnect.reason}});
  json["hello_to_first_frame_ms"] = session.hello_to_first_frame_ms();
  json["datagrams_dropped_on_purpose"] = link.dropped_on_purpose();
  return json;
}

// ---- What a connection did besides receiving its main screen

nlohmann::json report_others(HostSession& session, const ConnectRun& run) {
  nlohmann::json list = nlohmann::json::array();
  for (std::size_t i = 1; i < session.streams().size(); ++i) {
    ScreenStream& stream = *session.streams()[i];
    nlohmann::json json = {{"screen", stream.screen()}};
    if (stream.ever_granted()) {
      json.update(measured(stream, session.seconds()));
      json["stream"] = stream_values(stream.granted());
    }
    const auto lost = run.lost_screens().find(stream.screen());
    if (lost != run.lost_screens().end()) json["ended"] = lost->second;
    list.push_back(json);
  }
  return list;
}

nlohmann::json report_sound(const SoundReceiver::Counts& counts, const WavWriter& file) {
  return {{"packets", counts.packets},
          {"lost", counts.lost},
          {"late", counts.late},
          {"concealed", counts.concealed},
          {"undecodable", counts.undecodable},
          {"seconds", rounded(static_cast<double>(file.frames()) / SOUND_RATE)}};
}

nlohmann::json report_input(const InputSender& input) {
  InputSender::Statistics counts = input.statistics();
  nlohmann::json json = {{"events", counts.events},      {"acknowledged", counts.acknowledged},
                         {"refused", counts.refused},    {"positions", counts.positions},
                         {"packets", counts.packets},    {"repeats", counts.repeated},
                         {"forgotten", counts.forgotten}};
  if (!counts.latency_us.empty())
    json["acknowledged_after_ms"] = {{"p50", rounded(percentile(counts.latency_us, 50) / 1000)},
                                     {"p95", rounded(percentile(counts.latency_us, 95) / 1000)},
                                     {"max", rounded(percentile(counts.latency_us, 100) / 1000)}};
  return json;
}

nlohmann::json report_clipboard(const ClipboardTransfer& clipboard) {
  using Delivery = ClipboardTransfer::Delivery;
  nlohmann::json json = {{"received", clipboard.items_received()}};
  const Delivery delivery = clipboard.delivery(lund_now_us());
  if (delivery != Delivery::Nothing) json["delivered"] = delivery == Delivery::Delivered;
  if (const auto& last = clipboard.received())
    json["last"] = {{"kind", last->kind == LUND_CLIP_PNG ? "PNG" : "text"},
                    {"bytes", last->bytes.size()}};
  return json;
}

nlohmann::json report_pointer(HostSession& session, const ConnectRun::Pointer& pointer) {
  const CursorCache::Counts& counts = session.main().cursor().counts();
  nlohmann::json json = {{"x", pointer.position.x},
                         {"y", pointer.position.y},
                         {"visible", pointer.position.visible},
                         {"positions", counts.positions},
                         {"images", counts.images},
                         {"requests", counts.requests}};
  if (!pointer.image) return json;
  const CursorBitmap& bitmap = pointer.image->bitmap;
  json["image"] = {{"id", pointer.image->id},
                   {"width", bitmap.width},
                   {"height", bitmap.height},
                   {"hot_x", bitmap.hot_x},
                   {"hot_y", bitmap.hot_y}};
  return json;
}

void add_extras(nlohmann::json& json, HostSession& session, const ConnectRun& run) {
  if (session.streams().size() > 1) json["screens"] = report_others(session, run);
  if (run.sound_file()) json["sound"] = report_sound(session.sound_counts(), *run.sound_file());
  if (run.has_actions()) json["input"] = report_input(session.main().input());
  if (run.clipboard()) json["clipboard"] = report_clipboard(*run.clipboard());
  if (const auto pointer = run.pointer()) json["pointer"] = report_pointer(session, *pointer);
}

}  // namespace

std::filesystem::path screen_directory(const std::filesystem::path& out, std::size_t index) {
  return index == 0 || out.empty() ? out : out / ("screen" + std::to_string(index));
}

bool write_results(const std::filesystem::path& out, HostSession& session, HostLink& link,
                   const ConnectRun& run, std::string* error) {
  const auto refused = [error](const std::filesystem::path& path) {
    *error = "cannot write " + path.string();
    return false;
  };
  nlohmann::json json = report(session, link);
  add_extras(json, session, run);
  if (!write_json(out / "report.json", json, error)) return false;
  for (std::size_t i = 0; i < session.streams().size(); ++i) {
    const DecodedPicture* picture = session.streams()[i]->decoder().last_picture();
    const auto path = screen_directory(out, i) / "last_frame.png";
    if (picture && !write_png(path, to_rgb(*picture))) return refused(path);
  }
  const auto pointer = run.pointer();
  if (pointer && pointer->image && !write_png(out / "cursor.png", pointer->image->bitmap))
    return refused(out / "cursor.png");
  return true;
}

std::string summary(HostSession& session, HostLink& link) {
  const nlohmann::json json = report(session, link);
  const lund_hello_ack& ack = session.main().granted();
  char line[320];
  std::snprintf(line, sizeof line,
                "%s %dx%d via %s %s: %u frames in %.1f s (%.1f fps, %.2f Mbps), %u lost, "
                "%u recovered, rtt %.2f ms, first frame %.0f ms after HELLO\n",
                codec_name(ack.codec), ack.width, ack.height,
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
