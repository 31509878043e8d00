#pragma once

// The version text that banners, generated files and --version carry.
constexpr const char* exch_version = "68.0.22";
constexpr const char* exch_product = "Qomra mini PBX (MIPS)";
constexpr const char* exch_build_date = "Sep  9 2022";
