#include "Table.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "SkipReasons.h"
#include "StreamOrder.h"
#include "Text.h"

namespace rtp_monitor {

namespace {

constexpr double BITS_PER_KBIT = 1000;
constexpr size_t ROUTE_LIMIT = 45;  // columns that two IPv4 addresses may take
constexpr size_t ROUTE_LEAST = 20;  // as long as there is another column left to give
constexpr char CUT_MARK[] = "..";
constexpr char COLOUR_BAD[] = "\033[1;31m";
constexpr char COLOUR_ENDED[] = "\033[2m";
constexpr char COLOUR_OFF[] = "\033[0m";

// In the order in which they are shown.
enum EColumn {
    STATE,
    SSRC,
    TYPE,
    PACKETS,
    BYTES,
    LOST,
    LOSS,
    HERE,
    DUPLICATES,
    ORDER,
    LATE,
    STRAY,
    NEW,
    JITTER,
    RATE,
    NOW,
    GAP,
    COLUMN_COUNT
};

struct CColumn {
    const char* title;
    size_t width;  // at least, so that a running table does not fidget; 0: none unless needed
};
constexpr std::array<CColumn, COLUMN_COUNT> COLUMNS = {{
    {"", 0},         // STATE
    {"ssrc", 8},     // SSRC
    {"type", 4},     // TYPE
    {"packets", 8},  // PACKETS
    {"bytes", 10},   // BYTES
    {"lost", 6},     // LOST
    {"loss", 6},     // LOSS
    {"here", 5},     // HERE
    {"dup", 4},      // DUPLICATES
    {"order", 5},    // ORDER
    {"late", 4},     // LATE
    {"stray", 5},    // STRAY
    {"new", 3},      // NEW
    {"jitter", 7},   // JITTER
    {"kbit/s", 8},   // RATE
    {"now", 8},      // NOW
    {"gap ms", 8},   // GAP
}};
// The first falls away first. From FIRST_CORE on, addresses are shortened before.
constexpr EColumn FALL[] = {BYTES, ORDER, DUPLICATES, LATE, STRAY, NEW,  GAP,     LOST,
                            NOW,   HERE,  SSRC,       RATE, STATE, TYPE, PACKETS, JITTER};
constexpr EColumn FIRST_CORE = STATE;

typedef std::array<std::string, COLUMN_COUNT> Cells;

std::string FormatRoute(const CStreamKey& aKey) {
    return FormatSource(aKey) + " > " + FormatDestination(aKey);
}

std::string FigureOrDash(const char* aFormat, double aFigure, bool aIsKnown) {
    return aIsKnown ? Format(aFormat, aFigure) : std::string("-");
}

std::string Count(uint64_t aNumber) {
    return std::to_string(aNumber);
}

Cells MakeCells(const CStreamReport& aStream, bool aHasIntervals) {
    Cells cells;
    cells[STATE] = IsEnded(aStream) ? "ended" : "";
    cells[SSRC] = Format("%08x", aStream.key.ssrc);
    cells[TYPE] =
        (aStream.payloadName.empty() ? std::to_string(aStream.payloadType) : aStream.payloadName) +
        (aStream.isDoubtful ? "?" : "");
    cells[PACKETS] = Count(aStream.received);
    cells[BYTES] = Count(aStream.bytes);
    cells[LOST] = Count(aStream.lost);
    cells[LOSS] = Format("%.1f%%", LossPercent(aStream));
    cells[HERE] = Count(aStream.droppedHere);
    cells[DUPLICATES] = Count(aStream.duplicates);
    cells[ORDER] = Count(aStream.outOfOrder);
    cells[LATE] = Count(aStream.late);
    cells[STRAY] = Count(aStream.strays);
    cells[NEW] = Count(aStream.restarts);
    cells[JITTER] = FigureOrDash("%.2f", aStream.jitterMs, aStream.clockRate != 0);
    cells[RATE] = Format("%.1f", aStream.bitRate / BITS_PER_KBIT);
    cells[NOW] = FigureOrDash("%.1f", aStream.intervalBitRate / BITS_PER_KBIT, aHasIntervals);
    cells[GAP] = Format("%.1f", aStream.longestGapMs);
    return cells;
}

// Which columns there are, and how wide each is.
class CLayout {
  public:
    CLayout(const std::vector<std::string>& aRoutes, const std::vector<Cells>& aRows,
            size_t aColumns);

    bool Has(size_t aColumn) const { return m_widths[aColumn] > 0; }
    size_t width(size_t aColumn) const { return m_widths[aColumn]; }
    size_t routeWidth() const { return m_nRouteWidth; }

  private:
    // Of the columns after the addresses, with the blanks before them.
    size_t RestWidth() const;
    size_t Width() const { return m_nRouteWidth + RestWidth(); }
    void ShortenRoute(size_t aColumns, size_t aLeast);

    size_t m_nRouteWidth;
    std::array<size_t, COLUMN_COUNT> m_widths{};
};

constexpr char ROUTE_TITLE[] = "source > destination";

CLayout::CLayout(const std::vector<std::string>& aRoutes, const std::vector<Cells>& aRows,
                 size_t aColumns)
    : m_nRouteWidth(sizeof(ROUTE_TITLE) - 1) {
    for (const std::string& sRoute : aRoutes) {
        m_nRouteWidth = std::max(m_nRouteWidth, sRoute.size());
    }
    for (size_t i = 0; i < COLUMN_COUNT; ++i) {
        m_widths[i] = COLUMNS[i].width;
        for (const Cells& row : aRows) {
            m_widths[i] = std::max(m_widths[i], row[i].size());
        }
    }
    if (Width() > aColumns) {
        m_nRouteWidth = std::min(m_nRouteWidth, ROUTE_LIMIT);
    }
    bool bCore = false;
    for (const EColumn column : FALL) {
        bCore = bCore || column == FIRST_CORE;
        if (bCore) {
            ShortenRoute(aColumns, ROUTE_LEAST);
        }
        if (Width() <= aColumns) {
            return;
        }
        m_widths[column] = 0;
    }
    ShortenRoute(aColumns, 1);
}

size_t CLayout::RestWidth() const {
    size_t nWidth = 0;
    for (const size_t nColumn : m_widths) {
        nWidth += nColumn > 0 ? nColumn + 1 : 0;
    }
    return nWidth;
}

void CLayout::ShortenRoute(size_t aColumns, size_t aLeast) {
    const size_t nRest = RestWidth();
    const size_t nRoom = std::max(aLeast, aColumns > nRest ? aColumns - nRest : 0);
    m_nRouteWidth = std::min(m_nRouteWidth, nRoom);
}

// From the middle, so that the port of the destination stays.
std::string Shorten(const std::string& aText, size_t aWidth) {
    if (aText.size() <= aWidth) {
        return aText;
    }
    const size_t nMark = std::min(aWidth, sizeof(CUT_MARK) - 1);
    const size_t nTail = (aWidth - nMark + 1) / 2;
    return aText.substr(0, aWidth - nMark - nTail) + std::string(CUT_MARK, nMark) +
           aText.substr(aText.size() - nTail);
}

std::string Pad(const std::string& aText, size_t aWidth) {
    return std::string(aWidth - std::min(aWidth, aText.size()), ' ') + aText;
}

std::string TitleLine(const CLayout& aLayout) {
    std::string sLine = Shorten(ROUTE_TITLE, aLayout.routeWidth());
    sLine.resize(aLayout.routeWidth(), ' ');
    for (size_t i = 0; i < COLUMN_COUNT; ++i) {
        if (aLayout.Has(i)) {
            sLine += " " + Pad(COLUMNS[i].title, aLayout.width(i));
        }
    }
    return sLine + "\n";
}

std::string StreamLine(const CLayout& aLayout, const CStreamReport& aStream,
                       const std::string& aRoute, const Cells& aCells, bool aColour) {
    std::string sLine = Shorten(aRoute, aLayout.routeWidth());
    sLine.resize(aLayout.routeWidth(), ' ');
    const bool bEnded = aColour && IsEnded(aStream);
    for (size_t i = 0; i < COLUMN_COUNT; ++i) {
        if (!aLayout.Has(i)) {
            continue;
        }
        const bool bBad =
            aColour && ((i == LOSS && IsLossBad(aStream)) || (i == JITTER && IsJitterBad(aStream)));
        sLine += " ";
        sLine += bBad ? COLOUR_BAD : "";
        sLine += Pad(aCells[i], aLayout.width(i));
        sLine += bBad ? COLOUR_OFF : "";
        sLine += bBad && bEnded ? COLOUR_ENDED : "";
    }
    return (bEnded ? COLOUR_ENDED + sLine + COLOUR_OFF : sLine) + "\n";
}

std::string TotalsLines(const CReport& aReport) {
    std::string sLines =
        Format("RTP %llu, RTCP %llu, other UDP %llu, skipped %llu", Number(aReport.rtp),
               Number(aReport.rtcp), Number(aReport.notRtp), Number(aReport.Skipped()));
    const char* pszSeparator = " (";
    for (const CSkipReason& reason : SKIP_REASONS) {
        const uint64_t ullCount = aReport.skipped[static_cast<size_t>(reason.reason)];
        if (ullCount > 0) {
            sLines += Format("%s%s %llu", pszSeparator, reason.words, Number(ullCount));
            pszSeparator = ", ";
        }
    }
    sLines += aReport.Skipped() > 0 ? ")\n" : "\n";
    if (aReport.forgottenStreams > 0) {
        sLines += Format("%llu streams with %llu packets gave their places to others\n",
                         Number(aReport.forgottenStreams), Number(aReport.forgottenPackets));
    }
    return sLines;
}

std::string InputLines(const CReport& aReport) {
    std::string sLines;
    for (const CInputReport& input : aReport.inputs) {
        if (input.isSocket) {
            sLines +=
                input.name + (input.isGroup ? " (group joined)" : "") + ": " +
                (input.isDropKnown
                     ? Format("%llu packets dropped here, by the socket\n", Number(input.dropped))
                     : std::string("the system does not tell what the socket dropped\n"));
        }
    }
    return sLines;
}

size_t CountLines(const std::string& aLines) {
    return static_cast<size_t>(std::count(aLines.begin(), aLines.end(), '\n'));
}

std::string CountNoun(size_t aCount, const char* aSingular, const char* aPlural) {
    return std::to_string(aCount) + " " + (aCount == 1 ? aSingular : aPlural);
}

// Cuts what is still too long, or too much.
std::string Crop(const std::string& aLines, const CTableStyle& aStyle) {
    std::string sCropped;
    size_t nRow = 0;
    for (size_t nAt = 0; nAt < aLines.size() && nRow < aStyle.rows; ++nRow) {
        const size_t nEnd = aLines.find('\n', nAt);
        sCropped += aLines.substr(nAt, std::min(nEnd - nAt, aStyle.columns)) + "\n";
        nAt = nEnd + 1;
    }
    return sCropped;
}

}  // namespace

std::string FoldLines(const std::string& aLines, size_t aColumns) {
    std::string sFolded = aLines;
    size_t nLineStart = 0;
    size_t nBlank = std::string::npos;  // the last one of the line
    for (size_t i = 0; i < sFolded.size(); ++i) {
        const bool bWord = sFolded[i] != '\n' && sFolded[i] != ' ';
        if (bWord && i - nLineStart >= aColumns && nBlank != std::string::npos) {
            sFolded[nBlank] = '\n';
            nLineStart = nBlank + 1;
            nBlank = std::string::npos;
            i = nLineStart;
        }
        if (sFolded[i] == '\n') {
            nLineStart = i + 1;
            nBlank = std::string::npos;
        } else if (sFolded[i] == ' ') {
            nBlank = i;
        }
    }
    return sFolded;
}

std::string FormatTable(const CReport& aReport, const CTableStyle& aStyle) {
    std::vector<const CStreamReport*> streams;
    for (const CStreamReport& stream : aReport.streams) {
        if (aReport.isFinal || stream.silentUsec < AGED_OUT_AFTER_USEC) {
            streams.push_back(&stream);
        }
    }
    const size_t nAgedOut = aReport.streams.size() - streams.size();
    std::string sFoot;
    if (nAgedOut > 0) {
        sFoot += "and " + CountNoun(nAgedOut, "stream that has", "streams that have") + " ended\n";
    }
    sFoot = FoldLines(sFoot + TotalsLines(aReport) + InputLines(aReport), aStyle.columns);
    // Title, foot and the line that counts the others.
    const size_t nOther = CountLines(sFoot) + 1;
    const size_t nRoom = aStyle.rows > nOther ? aStyle.rows - nOther : 0;
    if (streams.size() > nRoom) {
        const size_t nShown = nRoom > 0 ? nRoom - 1 : 0;
        sFoot = "and " + CountNoun(streams.size() - nShown, "more stream", "more streams") + "\n" +
                sFoot;
        streams.resize(nShown);
    }
    std::vector<std::string> routes;
    std::vector<Cells> rows;
    for (const CStreamReport* pStream : streams) {
        routes.push_back(FormatRoute(pStream->key));
        rows.push_back(MakeCells(*pStream, aReport.hasIntervals));
    }
    const CLayout layout(routes, rows, aStyle.columns);
    std::string sTable = TitleLine(layout);
    for (size_t i = 0; i < streams.size(); ++i) {
        sTable += StreamLine(layout, *streams[i], routes[i], rows[i], aStyle.colour);
    }
    // Lines of streams fit as they are; they may hold colours, which must not be cut.
    CTableStyle footStyle = aStyle;
    footStyle.rows = aStyle.rows - std::min(aStyle.rows, streams.size() + 1);
    return sTable + Crop(sFoot, footStyle);
}

}  // namespace rtp_monitor
