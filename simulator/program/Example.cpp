#include "Description.h"

namespace ZolPlatform {

const std::string& example() {
    static const std::string TEXT = R"json({
  "services": [
    {
      "name": "Media",
      "resources": {
        "albums": {
          "0x1": {"title": "Kind of a Start", "artist": "The Examples"}
        },
        "tracks": {
          "0xa": {"title": "First Light", "seconds": 215, "album": {"uri": "/Media/albums/0x1"}},
          "0xb": {"title": "Second Wind", "seconds": 187, "album": {"uri": "/Media/albums/0x1"}}
        },
        "players": {
          "main": {
            "track": {"uri": "/Media/tracks/0xa"},
            "state": {"$sequence": {"repeatMs": 60000, "steps": [{"atMs": 0, "value": "playing"},
                                                                 {"atMs": 45000, "value": "paused"}]}},
            "position": {"$counter": {"from": 0, "to": 215, "everyMs": 1000}}
          }
        }
      }
    },
    {
      "name": "Climate",
      "resources": {
        "zones": {
          "left": {"target": 21, "measured": {"$walk": {"from": 20.5, "step": 0.3, "min": 18, "max": 24,
                                                        "everyMs": 2000}}},
          "right": {"target": 22, "measured": {"$walk": {"from": 21.5, "step": 0.3, "min": 18, "max": 24,
                                                         "everyMs": 3000}}}
        }
      }
    },
    {
      "name": "Updates",
      "registered": false,
      "resources": {
        "packages": {}
      }
    }
  ]
}
)json";
    return TEXT;
}

}  // namespace ZolPlatform
