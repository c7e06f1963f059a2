// How findings are shown: as lines, and as JSON.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "apps/lunderhaze/doctor_checks.h"

namespace {

constexpr std::size_t VERDICT_COLUMNS = 9;
constexpr std::size_t CHECK_COLUMNS = 11;

const char* word(Verdict verdict) {
  switch (verdict) {
    case Verdict::Ok:
      return "ok";
    case Verdict::Warning:
      return "warning";
    case Verdict::Problem:
      break;
  }
  return "problem";
}

std::string padded(std::string text, std::size_t columns) {
  if (text.size() < columns) text.append(columns - text.size(), ' ');
  return text;
}

std::size_t count(const Findings& findings, Verdict verdict) {
  return static_cast<std::size_t>(std::ranges::count(findings, verdict, &Finding::verdict));
}

std::string counted(std::size_t number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

}  // namespace

bool has_problem(const Findings& findings) {
  return count(findings, Verdict::Problem) != 0;
}

std::string findings_text(const Findings& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    text += padded(word(finding.verdict), VERDICT_COLUMNS) + padded(finding.check, CHECK_COLUMNS) +
            finding.text + "\n";
    if (!finding.advice.empty())
      text += padded("", VERDICT_COLUMNS + CHECK_COLUMNS) + "-> " + finding.advice + "\n";
  }
  return text + counted(count(findings, Verdict::Problem), "problem") + ", " +
         counted(count(findings, Verdict::Warning), "warning") + "\n";
}

std::string findings_json(const Findings& findings, std::uint16_t port) {
  nlohmann::ordered_json checks = nlohmann::ordered_json::array();
  for (const Finding& finding : findings) {
    nlohmann::ordered_json check = {
        {"check", finding.check}, {"verdict", word(finding.verdict)}, {"text", finding.text}};
    if (!finding.advice.empty()) check["advice"] = finding.advice;
    checks.push_back(std::move(check));
  }
  const nlohmann::ordered_json json = {{"port", port},
                                       {"problems", count(findings, Verdict::Problem)},
                                       {"warnings", count(findings, Verdict::Warning)},
                                       {"checks", std::move(checks)}};
  // A device's name is whatever its maker wrote.
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
