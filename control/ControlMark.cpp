#include "ControlMark.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

struct MarkStyle {
    std::string_view unicode;
    std::string_view ascii;
    int color;
    int weight;
};

/** In the order of ControlMark. */
constexpr std::array kStyles = {
    MarkStyle{.unicode = "░", .ascii = ".", .color = -1, .weight = -1},
    MarkStyle{.unicode = "█", .ascii = "#", .color = 6, .weight = 0},
    MarkStyle{.unicode = "▚", .ascii = "x", .color = 1, .weight = 0},
    MarkStyle{.unicode = "▒", .ascii = "=", .color = 5, .weight = 0},
    MarkStyle{.unicode = "◇", .ascii = "r", .color = 3, .weight = 1},
    MarkStyle{.unicode = "◆", .ascii = "W", .color = 2, .weight = 1},
};

const MarkStyle& styleOfMark(ControlMark mark)
{
    return kStyles.at(static_cast<size_t>(mark));
}

/** How a legend may look; the fullest form that fits is taken. */
struct LegendForm {
    std::array<std::string_view, kStyles.size()> names;
    std::string_view gap;
    bool hasShares;
};

constexpr size_t kMarksOfMoves = 2;

constexpr std::array kForms = {
    LegendForm{.names = {" free", " used", " fragmented", " fixed", " read", " written"},
               .gap = "  ",
               .hasShares = true},
    LegendForm{.names = {" free", " used", " fragmented", " fixed", " read", " written"},
               .gap = "  ",
               .hasShares = false},
    LegendForm{.names = {"free", "used", "frag", "fixed", "read", "write"},
               .gap = " ",
               .hasShares = false},
    LegendForm{.names = {"free", "use", "frg", "fix", "rd", "wr"}, .gap = " ", .hasShares = false},
};

/** " 42%" of the whole, in whole percent; what is there is never shown as none. */
std::string shareOf(uint64_t blocks, uint64_t total)
{
    if (total == 0) {
        return " 0%";
    }
    const long percent =
        std::lround(static_cast<double>(blocks) * 100 / static_cast<double>(total));
    return blocks != 0 && percent == 0 ? " <1%" : " " + std::to_string(percent) + "%";
}

constexpr size_t kShareCells = 5;

/** The cells of @p count entries, with the widest shares. */
size_t cellsOfForm(const LegendForm& form, size_t count)
{
    size_t cells = (count - 1) * form.gap.size();
    for (size_t index = 0; index < count; index++) {
        const bool hasShare = form.hasShares && index < kControlKindCount;
        cells += 1 + form.names.at(index).size() + (hasShare ? kShareCells : 0);
    }
    return cells;
}

ControlLegend legendInForm(const LegendForm& form, size_t count, const ControlKindCounts& totals)
{
    ControlLegend legend{.entries = {}, .gap = std::string(form.gap)};
    for (size_t index = 0; index < count; index++) {
        std::string text(form.names.at(index));
        if (form.hasShares && index < kControlKindCount) {
            text += shareOf(totals.of(static_cast<ControlKind>(index)), totals.total());
        }
        legend.entries.push_back({.mark = static_cast<ControlMark>(index), .text = text});
    }
    return legend;
}

}  // namespace

ControlMark markOfCounts(const ControlKindCounts& counts)
{
    return static_cast<ControlMark>(counts.shownKind());
}

std::string_view glyphOfMark(ControlMark mark, ControlCharacters characters)
{
    const MarkStyle& style = styleOfMark(mark);
    return characters == ControlCharacters::kUnicode ? style.unicode : style.ascii;
}

int colorOfMark(ControlMark mark)
{
    return styleOfMark(mark).color;
}

int weightOfMark(ControlMark mark)
{
    return styleOfMark(mark).weight;
}

size_t ControlLegend::cells() const
{
    size_t cells = 0;
    for (const ControlLegendEntry& entry : entries) {
        cells += (cells == 0 ? 0 : gap.size()) + 1 + entry.text.size();
    }
    return cells;
}

ControlLegend legendFor(const ControlKindCounts& totals, size_t columns, ControlLegendMarks marks)
{
    const size_t all =
        marks == ControlLegendMarks::kKinds ? kStyles.size() - kMarksOfMoves : kStyles.size();
    // The marks of moves explain themselves while they flicker; the kinds are to stay.
    for (const size_t count : {all, kControlKindCount}) {
        for (const LegendForm& form : kForms) {
            if (cellsOfForm(form, count) <= columns) {
                return legendInForm(form, count, totals);
            }
        }
    }
    size_t count = kControlKindCount;
    while (count > 0 && cellsOfForm(kForms.back(), count) > columns) {
        count--;
    }
    return legendInForm(kForms.back(), count, totals);
}
