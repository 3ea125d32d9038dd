// The promise Velmaro makes about a stick: no group's data is ever lost. Take a
// snapshot before a change and check it afterwards: every file is still on the volume
// under some name (its bytes, or at least its bytes at the start of a record that grew),
// every empty marker file still exists by its name. Only the names listed in mayGo
// (an older BCD_BAK or ".bak") may vanish.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "fake/Firmware.h"

inline std::string LeafOf (const std::string &path)
{
  size_t at = path.find_last_of ("\\/");
  std::string leaf = at == std::string::npos ? path : path.substr (at + 1);
  std::transform (leaf.begin (), leaf.end (), leaf.begin (), ::tolower);
  return leaf;
}

inline void ExpectNoGroupDataLost (const std::map<std::string, std::string> &before, const fake::Volume &volume, const std::set<std::string> &mayGo = {})
{
  const std::map<std::string, std::string> after = volume.Snapshot ();

  for (const auto &[path, bytes] : before) {
    if (bytes == "<dir>" || mayGo.count (path) != 0 || LeafOf (path) == "velmaro_log.txt" || LeafOf (path) == "velmaro.com") {
      continue;
    }

    bool kept = false;
    for (const auto &[afterPath, afterBytes] : after) {
      if (afterBytes == "<dir>") {
        continue;
      }

      kept = bytes.empty () ? (LeafOf (afterPath) == LeafOf (path)) : (afterBytes.compare (0, bytes.size (), bytes) == 0);
      if (kept) {
        break;
      }
    }

    EXPECT_TRUE (kept) << path << " (" << bytes.size () << " bytes) is no longer on the volume under any name";
  }
}
