#include "MorvaneCore/Restore/TimelinePage.h"

#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/TimeZones.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>

// The page is laid out on wall-clock seconds of the chosen zone: a day column is a span of 86,400
// of them, whatever the clock changes do to the true instants inside it. Texts of dates are
// formatted by ICU in that zone, so they agree with the placement.
namespace morvane {
namespace {

using State = TimelineItem::State;

constexpr double secondsPerDay = 86400;
// Past two weeks, day columns get too narrow to read: the range is drawn as weeks instead.
constexpr std::int64_t mostDayColumns = 14;
constexpr double pixelsPerHour = 44;
// A short event still gets a box tall enough for a line of text.
constexpr double shortestBox = 1800;
// The hours always drawn, so that a quiet week still looks like a working day.
constexpr int earliestFirstHour = 8;
constexpr int latestLastHour = 18;
constexpr const char* locale = "en";
// Calendars without a colour of their own.
constexpr const char* defaultColour = "#8E8E93";

void escape(std::string& out, std::string_view text) {
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
}

// Only "#RRGGBB" reaches a style attribute: the colour comes from the calendars, and anything else
// there could break out of the declaration.
std::string colourOf(const TimelineItem& item) {
    const auto& hex = item.colorHex;
    if (!hex || hex->size() != 7 || hex->front() != '#') return defaultColour;
    if (!std::all_of(hex->begin() + 1, hex->end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); }))
        return defaultColour;
    return *hex;
}

std::string shellQuoted(std::string_view text) {
    const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string_view("-_./:@%+=,").find(c) != std::string_view::npos;
    });
    if (plain) return std::string(text);
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

std::string number(double value) {
    std::array<char, 32> text{};
    const int length = std::snprintf(text.data(), text.size(), "%.2f", value);
    return std::string(text.data(), static_cast<std::size_t>(std::max(length, 0)));
}

// What the state looks like in a box: the same signs as the text form prints.
std::string_view sign(const TimelineItem& item) {
    if (item.moved()) return "\u2192";
    switch (item.state) {
    case State::unchanged: return "";
    case State::deleted: return "\u2212";
    case State::changed: return "~";
    case State::added: return "+";
    }
    return "";
}

// One stretch of an item inside one day: a box in a column, or a line in a week's cell.
struct Piece {
    std::size_t item;
    // Wall-clock seconds, clipped to the day.
    double from;
    double to;
    // The item where it is; where it was, beside it; or where it was, standing for an item now
    // outside the range.
    enum class Kind : std::uint8_t { item, ghost, away } kind;
    bool ghost() const { return kind == Kind::ghost; }
    bool former() const { return kind != Kind::item; }
};

class Page {
public:
    Page(const std::vector<TimelineItem>& items, DateInterval range, std::string_view zoneID, std::string_view backup)
        : items_(items), zone_(zone(zoneID)), zoneID_(zoneID), backup_(backup) {
        firstDay_ = dayOf(wall(range.start));
        lastDay_ = std::max(firstDay_, dayOf(wall(range.end) - 1));
        for (std::size_t index = 0; index < items_.size(); ++index) {
            const auto& item = items_[index];
            const bool shown = place(index, item.start, item.end, item.isAllDay, Piece::Kind::item);
            // Moved out of the range: its former place stands for it.
            if (item.previousStart && item.previousEnd)
                place(index, *item.previousStart, *item.previousEnd, item.isAllDay,
                      shown ? Piece::Kind::ghost : Piece::Kind::away);
        }
    }

    std::string html() {
        out_ += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                "<title>Timeline ";
        escape(out_, dayText(firstDay_, "d MMM yyyy") + " \u2013 " + dayText(lastDay_, "d MMM yyyy"));
        out_ += "</title><style>";
        out_ += style;
        out_ += "</style></head><body>\n<header><h1>Timeline</h1><p>";
        if (!backup_.empty()) {
            out_ += "Backup <code>";
            escape(out_, backup_);
            out_ += "</code> against the calendars now \u00B7 ";
        }
        escape(out_, dayText(firstDay_, "EEE d MMM yyyy") + " \u2013 " + dayText(lastDay_, "EEE d MMM yyyy"));
        if (!zoneID_.empty()) {
            out_ += " \u00B7 times in ";
            escape(out_, zoneID_);
        }
        out_ += "</p>";
        legend();
        out_ += "</header>\n<main>\n";
        if (lastDay_ - firstDay_ < mostDayColumns)
            dayColumns();
        else
            weeks();
        list();
        out_ += "</main></body></html>\n";
        return std::move(out_);
    }

private:
    static zones::Zone zone(std::string_view zoneID) {
        if (auto named = zones::Zone::named(zoneID)) return std::move(*named);
        return zones::Zone::current();
    }

    double wall(Date date) const { return date.seconds + zone_.secondsFromGMT(date); }
    static std::int64_t dayOf(double wallSeconds) {
        return static_cast<std::int64_t>(std::floor(wallSeconds / secondsPerDay));
    }
    static double startOf(std::int64_t day) { return static_cast<double>(day) * secondsPerDay; }
    // The reference date of Date is a Monday.
    static std::int64_t weekday(std::int64_t day) { return ((day % 7) + 7) % 7; }

    static std::string dayText(std::int64_t day, std::string_view pattern) {
        return dates::format(Date{startOf(day)}, pattern, locale, "UTC");
    }
    std::string timeText(Date date) const { return dates::format(date, "h:mm a", locale, zoneID_); }
    std::string dateTimeText(Date date) const { return dates::format(date, "EEE d MMM, h:mm a", locale, zoneID_); }

    std::string whenText(const TimelineItem& item, Date start, Date end) const {
        if (item.isAllDay) {
            const auto first = dayOf(wall(start));
            const auto last = std::max(first, dayOf(wall(end) - 1));
            auto text = dayText(first, "EEE d MMM") + ", all day";
            if (last != first)
                text = dayText(first, "EEE d MMM") + " \u2013 " + dayText(last, "EEE d MMM") + ", all day";
            return text;
        }
        if (dayOf(wall(start)) == dayOf(wall(end))) return dateTimeText(start) + " \u2013 " + timeText(end);
        return dateTimeText(start) + " \u2013 " + dateTimeText(end);
    }

    // Whether any of it falls on the days drawn.
    bool place(std::size_t index, Date start, Date end, bool allDay, Piece::Kind kind) {
        const double from = wall(start);
        const double to = std::max(from, wall(end));
        const auto first = dayOf(from);
        // An item's end is exclusive: one ending at midnight stays out of the next day.
        const auto last = to > from ? std::max(first, dayOf(to) - (std::fmod(to, secondsPerDay) == 0 ? 1 : 0)) : first;
        bool placed = false;
        for (auto day = std::max(first, firstDay_); day <= std::min(last, lastDay_); ++day) {
            const Piece piece{index, std::max(from, startOf(day)), std::min(to, startOf(day + 1)), kind};
            (allDay ? allDay_ : timed_)[day].push_back(piece);
            placed = true;
        }
        return placed;
    }

    // The opening tag of a box or chip, up to its style attribute, which the caller finishes.
    void open(const Piece& piece, std::string_view kind) {
        const auto& item = items_[piece.item];
        out_ += "<a class=\"";
        out_ += kind;
        if (piece.ghost()) {
            out_ += " ghost\" data-ghost-of=\"";
            escape(out_, item.id);
        } else {
            out_ += piece.former() ? " away s-" : " s-";
            out_ += TimelineItem::name(item.state);
            if (item.moved()) out_ += " moved";
            out_ += "\" data-id=\"";
            escape(out_, item.id);
            out_ += "\" data-state=\"";
            out_ += TimelineItem::name(item.state);
            if (item.moved()) out_ += "\" data-moved=\"true";
        }
        out_ += "\" href=\"#i" + std::to_string(piece.item) + "\" title=\"";
        std::string note = item.title + "\n" + whenText(item, item.start, item.end);
        if (piece.former()) note += "\nwas " + whenText(item, *item.previousStart, *item.previousEnd);
        escape(out_, note + "\n" + item.calendarName);
        out_ += "\" style=\"--c:" + colourOf(item) + ";";
    }

    void content(const Piece& piece, bool showTime) {
        const auto& item = items_[piece.item];
        if (!piece.ghost() && !sign(item).empty()) {
            out_ += "<span class=\"mark\">";
            out_ += sign(item);
            out_ += "</span>";
        }
        if (piece.kind == Piece::Kind::away) {
            out_ += "<span class=\"time\">moved to ";
            escape(out_, whenText(item, item.start, item.end));
            out_ += "</span> ";
        } else if (showTime) {
            out_ += "<span class=\"time\">";
            if (piece.ghost()) out_ += "was ";
            escape(out_, timeText(piece.ghost() ? *item.previousStart : item.start));
            out_ += "</span> ";
        } else if (piece.ghost()) {
            out_ += "<span class=\"time\">was</span> ";
        }
        out_ += "<span class=\"title\">";
        escape(out_, item.title.empty() ? std::string("(no title)") : item.title);
        out_ += "</span></a>";
    }

    void chip(const Piece& piece, bool showTime) {
        open(piece, "chip");
        out_ += "\">";
        content(piece, showTime);
    }

    void dayColumns() {
        int firstHour = earliestFirstHour;
        int lastHour = latestLastHour;
        for (const auto& [day, pieces] : timed_) {
            for (const auto& piece : pieces) {
                const double hourFrom = (piece.from - startOf(day)) / 3600;
                const double hourTo = (std::max(piece.to, piece.from + shortestBox) - startOf(day)) / 3600;
                firstHour = std::min(firstHour, static_cast<int>(std::floor(hourFrom)));
                lastHour = std::max(lastHour, std::min(24, static_cast<int>(std::ceil(hourTo))));
            }
        }
        const auto columns = lastDay_ - firstDay_ + 1;
        out_ += "<div class=\"days\" style=\"--days:" + std::to_string(columns) + "\">\n<div class=\"corner\"></div>";
        for (auto day = firstDay_; day <= lastDay_; ++day) {
            out_ += weekday(day) >= 5 ? "<div class=\"dayhead weekend\">" : "<div class=\"dayhead\">";
            escape(out_, dayText(day, "EEE d MMM"));
            out_ += "</div>";
        }
        out_ += "\n<div class=\"bandlabel\">all day</div>";
        for (auto day = firstDay_; day <= lastDay_; ++day) {
            out_ += "<div class=\"band\">";
            if (const auto found = allDay_.find(day); found != allDay_.end()) {
                for (const auto& piece : found->second)
                    chip(piece, false);
            }
            out_ += "</div>";
        }
        const double height = (lastHour - firstHour) * pixelsPerHour;
        out_ += "\n<div class=\"hours\" style=\"height:" + number(height) + "px\">";
        for (int hour = firstHour; hour < lastHour; ++hour) {
            out_ += "<span style=\"top:" + number((hour - firstHour) * pixelsPerHour) + "px\">";
            escape(out_, dates::format(Date{hour * 3600.0}, "h a", locale, "UTC"));
            out_ += "</span>";
        }
        out_ += "</div>";
        for (auto day = firstDay_; day <= lastDay_; ++day) {
            out_ += "<div class=\"column\" style=\"height:" + number(height) + "px\">";
            if (const auto found = timed_.find(day); found != timed_.end())
                boxes(found->second, startOf(day) + firstHour * 3600.0, startOf(day) + lastHour * 3600.0);
            out_ += "</div>";
        }
        out_ += "\n</div>\n";
    }

    // Boxes that overlap share the column's width, side by side, as calendars draw them.
    void boxes(std::vector<Piece> pieces, double top, double bottom) {
        std::stable_sort(pieces.begin(), pieces.end(), [](const Piece& a, const Piece& b) {
            if (a.from != b.from) return a.from < b.from;
            return !a.former() && b.former();
        });
        const auto shownEnd = [&](const Piece& piece) {
            return std::min(bottom, std::max(piece.to, piece.from + shortestBox));
        };
        std::size_t begin = 0;
        while (begin < pieces.size()) {
            std::vector<double> laneEnds;
            std::vector<std::size_t> lanes;
            double clusterEnd = shownEnd(pieces[begin]);
            std::size_t end = begin;
            for (; end < pieces.size() && (end == begin || pieces[end].from < clusterEnd); ++end) {
                const auto& piece = pieces[end];
                std::size_t lane = 0;
                while (lane < laneEnds.size() && laneEnds[lane] > piece.from)
                    ++lane;
                if (lane == laneEnds.size()) laneEnds.push_back(0);
                laneEnds[lane] = shownEnd(piece);
                lanes.push_back(lane);
                clusterEnd = std::max(clusterEnd, shownEnd(piece));
            }
            const double width = 100.0 / static_cast<double>(laneEnds.size());
            for (std::size_t index = begin; index < end; ++index) {
                const auto& piece = pieces[index];
                // Too short for two lines: time and title share one.
                open(piece, shownEnd(piece) - piece.from < 2700 ? "box short" : "box");
                out_ += "top:" + number((std::max(piece.from, top) - top) / 3600 * pixelsPerHour) +
                        "px;height:" + number((shownEnd(piece) - std::max(piece.from, top)) / 3600 * pixelsPerHour) +
                        "px;left:" + number(width * static_cast<double>(lanes[index - begin])) +
                        "%;width:" + number(width) + "%\">";
                content(piece, true);
            }
            begin = end;
        }
    }

    void weeks() {
        const auto gridStart = firstDay_ - weekday(firstDay_);
        const auto gridEnd = lastDay_ + (6 - weekday(lastDay_));
        out_ += "<div class=\"weeks\">\n";
        for (auto day = gridStart; day < gridStart + 7; ++day) {
            out_ += "<div class=\"dayhead\">";
            escape(out_, dayText(day, "EEE"));
            out_ += "</div>";
        }
        out_ += "\n";
        for (auto day = gridStart; day <= gridEnd; ++day) {
            const bool inRange = day >= firstDay_ && day <= lastDay_;
            out_ += inRange ? (weekday(day) >= 5 ? "<div class=\"cell weekend\">" : "<div class=\"cell\">")
                            : "<div class=\"cell out\">";
            out_ += "<div class=\"date\">";
            escape(out_, dayText(day, day == firstDay_ || dayText(day, "d") == "1" ? "d MMM" : "d"));
            out_ += "</div>";
            if (const auto found = allDay_.find(day); found != allDay_.end()) {
                for (const auto& piece : found->second)
                    chip(piece, false);
            }
            if (const auto found = timed_.find(day); found != timed_.end()) {
                auto pieces = found->second;
                std::stable_sort(pieces.begin(), pieces.end(),
                                 [](const Piece& a, const Piece& b) { return a.from < b.from; });
                for (const auto& piece : pieces)
                    chip(piece, true);
            }
            out_ += "</div>";
            if (weekday(day) == 6) out_ += "\n";
        }
        out_ += "</div>\n";
    }

    void legend() {
        std::array<std::size_t, 4> counts{};
        std::size_t moved = 0;
        for (const auto& item : items_) {
            ++counts.at(static_cast<std::size_t>(item.state));
            if (item.moved()) ++moved;
        }
        out_ += "<ul class=\"legend\">";
        const auto entry = [&](std::string_view classes, std::string_view mark, std::string_view words,
                               std::size_t count) {
            out_ += "<li><span class=\"chip sample ";
            out_ += classes;
            out_ += "\">";
            if (!mark.empty()) {
                out_ += "<span class=\"mark\">";
                out_ += mark;
                out_ += "</span>";
            }
            out_ += "<span class=\"title\">";
            out_ += words;
            out_ += "</span></span> " + std::to_string(count) + "</li>";
        };
        entry("s-unchanged", "", "unchanged", counts[0]);
        entry("s-deleted", "\u2212", "deleted", counts[1]);
        entry("s-changed", "~", "changed", counts[2] - moved);
        entry("s-changed moved", "\u2192", "moved", moved);
        entry("ghost", "", "was here", moved);
        entry("s-added", "+", "added", counts[3]);
        out_ += "</ul><p class=\"counts\">" + std::to_string(counts[0]) + " unchanged, " + std::to_string(counts[1]) +
                " deleted, " + std::to_string(counts[2]) + " changed (" + std::to_string(moved) + " moved), " +
                std::to_string(counts[3]) + " added</p>";
    }

    void list() {
        if (items_.empty()) {
            out_ += "<p class=\"empty\">Nothing in this range, in the backup or in the calendars now.</p>\n";
            return;
        }
        out_ += "<h2>Items</h2>\n<table class=\"items\"><thead><tr><th>State</th><th>When</th><th>Title</th>"
                "<th>Calendar</th><th>Id and restore command</th></tr></thead><tbody>\n";
        for (std::size_t index = 0; index < items_.size(); ++index) {
            const auto& item = items_[index];
            out_ += "<tr id=\"i" + std::to_string(index) + "\" class=\"s-";
            out_ += TimelineItem::name(item.state);
            out_ += "\"><td><span class=\"swatch\" style=\"--c:" + colourOf(item) + "\"></span>";
            out_ += TimelineItem::name(item.state);
            if (item.moved()) out_ += ", moved";
            out_ += "</td><td>";
            escape(out_, whenText(item, item.start, item.end));
            if (item.moved()) {
                out_ += "<br><small>was ";
                escape(out_, whenText(item, *item.previousStart, *item.previousEnd));
                out_ += "</small>";
            }
            out_ += "</td><td class=\"title\">";
            escape(out_, item.title);
            if (item.location) {
                out_ += "<br><small>";
                escape(out_, *item.location);
                out_ += "</small>";
            }
            for (const auto& change : item.changes) {
                out_ += "<br><small>";
                escape(out_, change.field + ": " + change.old + " \u2192 " + change.new_);
                out_ += "</small>";
            }
            out_ += "</td><td>";
            escape(out_, item.calendarName);
            out_ += "</td><td><code>";
            escape(out_, item.id);
            out_ += "</code>";
            if (const auto command = restoreCommand(item, backup_); command && !backup_.empty()) {
                out_ += "<br><code class=\"command\">";
                escape(out_, *command);
                out_ += "</code>";
            }
            out_ += "</td></tr>\n";
        }
        out_ += "</tbody></table>\n";
    }

    static constexpr const char* style = R"css(
:root{color-scheme:light;--line:#e3e3e8;--muted:#6e6e73}
*{box-sizing:border-box}
body{margin:0;padding:20px 24px 40px;font:14px/1.35 system-ui,-apple-system,"Segoe UI",Roboto,"Helvetica Neue",Arial,sans-serif;color:#1d1d1f;background:#fff}
h1{font-size:22px;margin:0 0 4px}h2{font-size:17px;margin:28px 0 8px}
header p{margin:0 0 10px;color:var(--muted)}
code{font:12px/1.3 ui-monospace,"SF Mono",Menlo,Consolas,"DejaVu Sans Mono",monospace;word-break:break-all}
.legend{list-style:none;margin:0;padding:0;display:flex;flex-wrap:wrap;gap:6px 18px;align-items:center}
.legend li{display:flex;align-items:center;gap:6px;color:var(--muted)}
.legend .sample{--c:#5b8def;position:static;display:inline-block;width:auto}
.counts{margin:8px 0 0!important}
.days{display:grid;grid-template-columns:48px repeat(var(--days),minmax(0,1fr));border-top:1px solid var(--line)}
.dayhead{padding:6px 4px;font-weight:600;text-align:center;border-left:1px solid var(--line);border-bottom:1px solid var(--line);white-space:nowrap;overflow:hidden;text-overflow:ellipsis}
.weekend{background:#fafafc}
.corner,.bandlabel{border-bottom:1px solid var(--line)}
.bandlabel{font-size:11px;color:var(--muted);padding:4px 4px 0 0;text-align:right}
.band{border-left:1px solid var(--line);border-bottom:1px solid var(--line);padding:2px;min-height:24px;display:flex;flex-direction:column;gap:2px}
.hours{position:relative}
.hours span{position:absolute;right:6px;transform:translateY(-50%);font-size:11px;color:var(--muted);white-space:nowrap}
.hours span:first-child{transform:none}
.column{position:relative;border-left:1px solid var(--line);background:repeating-linear-gradient(to bottom,var(--line) 0 1px,transparent 1px 44px)}
.box,.chip{display:block;overflow:hidden;color:#1d1d1f;text-decoration:none;border-radius:5px;font-size:12px;padding:2px 5px;
 background:color-mix(in srgb,var(--c) 22%,#fff);border-left:4px solid var(--c);white-space:nowrap;text-overflow:ellipsis}
.box{position:absolute;white-space:normal;border-right:2px solid #fff;border-bottom:1px solid #fff}
.box:hover,.chip:hover{outline:2px solid var(--c);z-index:2}
.time{color:#48484a;font-variant-numeric:tabular-nums;font-size:11px}
.box .time{display:block}
.box.short{white-space:nowrap;padding-top:1px}.box.short .time{display:inline}
.mark{display:inline-block;min-width:15px;height:15px;margin-right:4px;border-radius:8px;text-align:center;font:700 11px/15px system-ui,sans-serif;color:#fff;background:#48484a;vertical-align:1px}
.s-deleted{background:repeating-linear-gradient(135deg,color-mix(in srgb,var(--c) 14%,#fff) 0 6px,#fff 6px 12px);color:#6e6e73}
.s-deleted .title{text-decoration:line-through;text-decoration-thickness:2px}
.s-deleted .mark{background:#d70015}
.s-added{background:#fff;border:2px solid var(--c);border-left-width:4px}
.s-added .mark{background:#248a3d}
.s-changed .mark{background:#c93400}
.s-changed.moved .mark{background:#0071e3}
.ghost{background:transparent;border:2px dashed color-mix(in srgb,var(--c) 70%,#fff);color:#8e8e93;opacity:.8}
.box.ghost{border-right-width:2px}
.away{border-style:dashed;border-width:2px 2px 2px 4px;border-color:var(--c);background:#fff}
.weeks{display:grid;grid-template-columns:repeat(7,minmax(0,1fr));border-top:1px solid var(--line);border-left:1px solid var(--line)}
.weeks .dayhead{border-left:0;border-right:1px solid var(--line)}
.cell{min-height:96px;padding:3px;border-right:1px solid var(--line);border-bottom:1px solid var(--line);display:flex;flex-direction:column;gap:2px;min-width:0}
.cell.out{background:#f5f5f7}
.date{font-size:12px;font-weight:600;color:var(--muted);padding:0 2px 2px}
.chip{font-size:11.5px;padding:1px 4px}
table.items{border-collapse:collapse;width:100%;font-size:13px}
.items th{text-align:left;font-weight:600;color:var(--muted);border-bottom:1px solid var(--line);padding:6px 8px}
.items td{vertical-align:top;border-bottom:1px solid var(--line);padding:6px 8px}
.items tr:target{background:#fff8d6}
.items td.title{font-weight:500}
.items tr.s-deleted{background:none;color:inherit}
.items tr.s-deleted td.title{text-decoration:line-through}
.items small{color:var(--muted);font-weight:400}
.swatch{display:inline-block;width:10px;height:10px;border-radius:5px;background:var(--c);margin-right:6px}
.command{display:inline-block;margin-top:3px;padding:2px 6px;background:#f2f2f7;border-radius:4px;user-select:all}
.empty{color:var(--muted);font-size:15px;margin-top:24px}
@media print{.box:hover,.chip:hover{outline:none}}
)css";

    const std::vector<TimelineItem>& items_;
    const zones::Zone zone_;
    const std::string zoneID_;
    const std::string backup_;
    std::int64_t firstDay_ = 0;
    std::int64_t lastDay_ = 0;
    std::map<std::int64_t, std::vector<Piece>> allDay_;
    std::map<std::int64_t, std::vector<Piece>> timed_;
    std::string out_;
};

} // namespace

std::optional<std::string> restoreCommand(const TimelineItem& item, std::string_view backup) {
    const auto start = "morvane restore " + shellQuoted(backup) + " ";
    if (item.state == State::deleted && item.restoreID) return start + std::to_string(*item.restoreID);
    if (item.state == State::deleted || item.state == State::changed)
        return start + "--occurrence " + shellQuoted(item.id);
    return std::nullopt;
}

std::string timelinePage(const std::vector<TimelineItem>& items, DateInterval range, std::string_view zoneID,
                         std::string_view backup) {
    return Page(items, range, zoneID, backup).html();
}

} // namespace morvane
