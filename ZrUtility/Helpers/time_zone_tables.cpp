// The server's numbers for time zones.

#include "ZrUtility/Helpers/WindowsUtilities.h"

namespace {

// The packed form of a rule. So "last Sunday of October, 3 o'clock" is 0x305A: hour, weekday, week, month.
constexpr _TZDayInfo Rule(unsigned packed) {
    _TZDayInfo rule{};
    rule.month = packed & 0xF;
    rule.week = packed >> 4 & 0x7;
    rule.day = packed >> 7 & 0x1F;
    rule.hour = packed >> 12 & 0xF;
    return rule;
}
constexpr _TZDayInfo NEVER = Rule(0);

}  // namespace

static_assert(sizeof(_TZDayInfo) == 2 && sizeof(_TZInfo) == 8 && sizeof(_TZMapElement) == 12);

// Number, minutes east of UTC, change to standard time, change to daylight time. It is searched from its beginning, and
// the order within an offset decides.
constinit const _TZInfo WindowsUtilities::m_tzList[75] = {
    {0, -720, NEVER, NEVER},
    {1, -660, NEVER, NEVER},
    {2, -600, NEVER, NEVER},
    {3, -540, Rule(0x201B), Rule(0x2023)},
    {4, -480, Rule(0x201B), Rule(0x2023)},
    {15, -420, NEVER, NEVER},
    {10, -420, Rule(0x201B), Rule(0x2023)},
    {13, -420, Rule(0x205A), Rule(0x2014)},
    {33, -360, NEVER, NEVER},
    {20, -360, Rule(0x201B), Rule(0x2023)},
    {30, -360, Rule(0x205A), Rule(0x2014)},
    {25, -360, NEVER, NEVER},
    {45, -300, NEVER, NEVER},
    {35, -300, Rule(0x201B), Rule(0x2023)},
    {40, -300, NEVER, NEVER},
    {50, -240, Rule(0x201B), Rule(0x2023)},
    {55, -240, NEVER, NEVER},
    {56, -240, Rule(0x7323), Rule(0x732A)},
    {60, -210, Rule(0x201B), Rule(0x2023)},
    {65, -180, Rule(0x0052), Rule(0x001B)},
    {70, -180, NEVER, NEVER},
    {73, -180, Rule(0x205A), Rule(0x2014)},
    {75, -120, Rule(0x2059), Rule(0x2053)},
    {80, -60, Rule(0x305A), Rule(0x2053)},
    {83, -60, NEVER, NEVER},
    {90, 0, NEVER, NEVER},
    {85, 0, Rule(0x205A), Rule(0x1053)},
    {110, 60, Rule(0x305A), Rule(0x2053)},
    {95, 60, Rule(0x305A), Rule(0x2053)},
    {105, 60, Rule(0x305A), Rule(0x2053)},
    {100, 60, Rule(0x305A), Rule(0x2053)},
    {113, 60, NEVER, NEVER},
    {130, 120, Rule(0x405A), Rule(0x3053)},
    {115, 120, Rule(0x305A), Rule(0x2053)},
    {120, 120, Rule(0x7259), Rule(0x7254)},
    {140, 120, NEVER, NEVER},
    {125, 120, Rule(0x405A), Rule(0x3053)},
    {135, 120, Rule(0x2039), Rule(0x22D3)},
    {158, 180, Rule(0x401A), Rule(0x3014)},
    {150, 180, NEVER, NEVER},
    {145, 180, Rule(0x305A), Rule(0x2053)},
    {155, 180, NEVER, NEVER},
    {160, 210, Rule(0x2149), Rule(0x2013)},
    {165, 240, NEVER, NEVER},
    {170, 240, Rule(0x305A), Rule(0x2053)},
    {175, 270, NEVER, NEVER},
    {180, 300, Rule(0x305A), Rule(0x2053)},
    {185, 300, NEVER, NEVER},
    {190, 330, NEVER, NEVER},
    {193, 345, NEVER, NEVER},
    {201, 360, Rule(0x305A), Rule(0x2053)},
    {195, 360, NEVER, NEVER},
    {200, 360, NEVER, NEVER},
    {203, 390, NEVER, NEVER},
    {205, 420, NEVER, NEVER},
    {207, 420, Rule(0x305A), Rule(0x2053)},
    {210, 480, NEVER, NEVER},
    {227, 480, Rule(0x305A), Rule(0x2053)},
    {215, 480, NEVER, NEVER},
    {225, 480, Rule(0x3053), Rule(0x205A)},
    {220, 480, NEVER, NEVER},
    {235, 540, NEVER, NEVER},
    {230, 540, NEVER, NEVER},
    {240, 540, Rule(0x305A), Rule(0x2053)},
    {250, 570, Rule(0x3053), Rule(0x205A)},
    {245, 570, NEVER, NEVER},
    {260, 600, NEVER, NEVER},
    {255, 600, Rule(0x3053), Rule(0x205A)},
    {275, 600, NEVER, NEVER},
    {265, 600, Rule(0x3053), Rule(0x201A)},
    {270, 600, Rule(0x305A), Rule(0x2053)},
    {280, 660, NEVER, NEVER},
    {290, 720, Rule(0x3033), Rule(0x201A)},
    {285, 720, NEVER, NEVER},
    {300, 780, NEVER, NEVER},
};

// Number, minutes east of UTC, whether there is daylight time. Some offsets have the number of a neighbour.
constinit const _TZMapElement WindowsUtilities::m_tzMap[58] = {
    {0, -720, 0},  {1, -660, 0},  {2, -600, 0},  {3, -570, 0},  {3, -540, 1},  {4, -510, 0},  {4, -480, 1},
    {15, -420, 0}, {10, -420, 1}, {20, -360, 1}, {25, -360, 0}, {35, -300, 1}, {40, -300, 0}, {50, -240, 1},
    {55, -240, 0}, {60, -210, 1}, {65, -180, 1}, {70, -180, 0}, {75, -120, 1}, {80, -60, 1},  {83, -60, 0},
    {90, 0, 0},    {85, 0, 1},    {110, 60, 1},  {113, 60, 0},  {125, 120, 1}, {135, 120, 1}, {158, 180, 1},
    {150, 180, 0}, {160, 210, 1}, {165, 240, 0}, {170, 240, 1}, {175, 270, 0}, {180, 300, 1}, {185, 300, 0},
    {190, 330, 0}, {193, 345, 0}, {201, 360, 1}, {195, 360, 0}, {203, 390, 0}, {205, 420, 0}, {207, 420, 1},
    {227, 480, 1}, {225, 480, 1}, {235, 540, 0}, {240, 540, 1}, {250, 570, 1}, {245, 570, 0}, {260, 600, 0},
    {255, 600, 1}, {255, 630, 0}, {280, 660, 0}, {280, 690, 0}, {290, 720, 1}, {285, 720, 0}, {285, 765, 0},
    {300, 780, 0}, {300, 840, 0},
};
