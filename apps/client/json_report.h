// What the reports of `connect` and `view` have in common.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

// To three decimals: microseconds of a millisecond, milliseconds of a second.
double rounded(double value);

// The granted codec as users know it.
const char* codec_name(std::uint8_t codec);

// False with `error` when the disk refuses.
bool write_json(const std::filesystem::path& path, const nlohmann::json& json, std::string* error);
