#pragma once

#include "MorvaneCore/Restore/Timeline.h"
#include "MorvaneCore/Shared/Date.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// A timeline drawn as one self-contained HTML page: no script, and no style, font or image from
// anywhere else, so that it opens the same from a mail, a USB stick or a browser without network.
//
// Up to two weeks are day columns on a time grid, each item a box at its time of day (all-day items
// in a band on top); longer ranges are a grid of weeks, Monday first, each day listing its items.
// A box is coloured by its calendar and marked by its state: struck through when deleted, outlined
// when added, a marker when changed, and a faded ghost at its previous place when moved. Every box
// carries `data-id` (the item's id) and `data-state` (the state's name; `data-moved` when it moved),
// and links to a row below that holds the item's id and the command that brings it back. A legend
// and the counts per state close the page. Every text from the calendars is escaped.
//
// `zoneID` names the ICU zone days and times are drawn in (empty: the current zone); `backup` is the
// backup as `morvane restore` takes it, written into each restore command. Pure: reads nothing but
// the zone database, never fails.
std::string timelinePage(const std::vector<TimelineItem>& items, DateInterval range, std::string_view zoneID,
                         std::string_view backup);

// The command that brings an item back, with `backup` and the id quoted for a POSIX shell: the whole
// event by its row when it can be restored whole, otherwise that one occurrence (or single event) by
// its id for a deleted or changed item; nothing for an unchanged or added one.
std::optional<std::string> restoreCommand(const TimelineItem& item, std::string_view backup);

} // namespace morvane
