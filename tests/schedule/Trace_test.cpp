// Trace files and the sink of trace lines, in every schedule.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "CmT120TraceFile.h"
#include "CmTrace.h"
#include "schedule/Schedule.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

// A file of its own for each process, which is removed.
class CFileName {
  public:
    CFileName() : m_strName("schedule_" + std::to_string(getpid()) + ".log") {}
    ~CFileName() { std::remove(m_strName.c_str()); }
    CFileName(const CFileName&) = delete;
    CFileName& operator=(const CFileName&) = delete;

    const char* Get() const { return m_strName.c_str(); }
    // How often a whole line that ends with aText is in it.
    int CountOf(const std::string& aText) const {
        std::ifstream file(m_strName);
        int nCount = 0;
        for (std::string strLine; std::getline(file, strLine);) {
            const bool bEnds =
                strLine.size() >= aText.size() &&
                strLine.compare(strLine.size() - aText.size(), aText.size(), aText) == 0;
            nCount += bEnds ? 1 : 0;
        }
        return nCount;
    }

  private:
    const std::string m_strName;
};

int s_nFirst;
int s_nSecond;

void FirstSink(unsigned long /*aLevel*/, const char* /*aText*/, unsigned int /*aLength*/) {
    ++s_nFirst;
}
void SecondSink(unsigned long /*aLevel*/, const char* /*aText*/, unsigned int /*aLength*/) {
    ++s_nSecond;
}
void Trace(const char* aText) {
    util_adapter_trace(CM_TRACE_LEVEL_INFO, aText,
                       static_cast<unsigned int>(std::char_traits<char>::length(aText)));
}

// The sink that was there is there again afterwards.
class CSinks {
  public:
    CSinks() : m_pfnBefore(g_util_trace_sink.load()) {
        s_nFirst = 0;
        s_nSecond = 0;
        set_util_external_trace_sink(&FirstSink);
    }
    ~CSinks() { set_util_external_trace_sink(m_pfnBefore); }
    CSinks(const CSinks&) = delete;
    CSinks& operator=(const CSinks&) = delete;

  private:
    const UtilTraceSink m_pfnBefore;
};

}  // namespace

TEST(ScheduledTraceFile, HasEachLineOnce_WhenTwoThreadsWriteAndItIsRefreshed) {
    CSettings settings;
    settings.m_ulSchedules = 3000;
    const CFileName name;
    Explore(
        [&name] {
            std::remove(name.Get());
            const unsigned char byShared = static_cast<unsigned char>(Choose(2));
            {
                CCmT120TraceFile file(nullptr, 0, byShared, 0);
                SCHEDULE_EXPECT(file.attach(name.Get()) == CM_OK);
                // The header cuts the first line of a new file.
                file.write("tag", "module", "zero\n");
                SCHEDULE_EXPECT(file.refresh_settings(0, 4) == 1);
                CThreadOf first([&file] { file.write("tag", "module", "one\n"); });
                CThreadOf second([&file] { file.write("tag", "module", "two\n"); });
                SCHEDULE_EXPECT(file.refresh_settings(0, 3) == 1);
                file.write("tag", "module", "three\n");
            }
            SCHEDULE_EXPECT(name.CountOf("one") == 1);
            SCHEDULE_EXPECT(name.CountOf("two") == 1);
            SCHEDULE_EXPECT(name.CountOf("three") == 1);
        },
        settings);
}

TEST(ScheduledTraceFile, IsTheSameForBoth_WhenTwoThreadsOpenItAndOneCloses) {
    CSettings settings;
    settings.m_ulSchedules = 3000;
    Explore(
        [] {
            void* pFirst = nullptr;
            void* pSecond = nullptr;
            {
                CThreadOf other([&pFirst] {
                    pFirst = T120_Open_Trace_Dev("scheduled", 0, 0, 0);
                    void* const pOwn = T120_Open_Trace_Dev(nullptr, 0, 0, 0);
                    SCHEDULE_EXPECT(pOwn != nullptr && pOwn != pFirst);
                    T120_Close_Trace_Dev(pOwn);
                });
                pSecond = T120_Open_Trace_Dev("scheduled", 0, 0, 0);
            }
            SCHEDULE_EXPECT(pFirst != nullptr && pFirst == pSecond);
            T120_Close_Trace_Dev(pFirst);
            T120_Close_Trace_Dev(pFirst);  // no longer known
        },
        settings);
}

TEST(ScheduledTraceFile, RefreshesWhatIsThere_WhileAnotherThreadOpensAndWrites) {
    CSettings settings;
    settings.m_ulSchedules = 3000;
    const CFileName name;
    Explore(
        [&name] {
            std::remove(name.Get());
            void* const pFirst = T120_Open_Trace_Dev("first", 0, 0, 0);
            SCHEDULE_EXPECT(pFirst != nullptr);
            SCHEDULE_EXPECT(static_cast<CCmT120TraceFile*>(pFirst)->attach(name.Get()) == CM_OK);
            T120_Refresh_Settings(0, 4);
            // The header cuts the first line of a new file.
            T120_Write_Trace_Dev(pFirst, "tag", "module", "zero\n");
            void* pSecond = nullptr;
            {
                CThreadOf other([&] {
                    pSecond = T120_Open_Trace_Dev("second", 0, 0, 0);
                    T120_Write_Trace_Dev(pSecond, "tag", "module", "line\n");
                    T120_Write_Trace_Dev(pFirst, "tag", "module", "one\n");
                });
                T120_Refresh_Settings(0, 1);
            }
            SCHEDULE_EXPECT(pSecond != nullptr && pFirst != pSecond);
            // One that was not refreshed keeps it until it has four lines.
            T120_Write_Trace_Dev(pFirst, "tag", "module", "two\n");
            SCHEDULE_EXPECT(name.CountOf("one") == 1 && name.CountOf("two") == 1);
            T120_Close_Trace_Dev(pFirst);
            T120_Close_Trace_Dev(pSecond);
        },
        settings);
}

TEST(ScheduledTraceSink, ReceivesEachLineOnce_WhenTheSinkIsChangedMeanwhile) {
    Explore([] {
        const CSinks sinks;
        {
            const auto trace = [] {
                Trace("one");
                Trace("two");
            };
            CThreadOf first(trace);
            CThreadOf second(trace);
            set_util_external_trace_sink(&SecondSink);
            const int nSecond = s_nSecond;
            Trace("three");
            SCHEDULE_EXPECT(s_nSecond > nSecond);
        }
        SCHEDULE_EXPECT(s_nFirst + s_nSecond == 5);
    });
}

TEST(ScheduledTraceSink, LosesNoLineOfItsOwn_WhenAnotherThreadTakesItAway) {
    Explore([] {
        const CSinks sinks;
        {
            CThreadOf other([] {
                set_util_external_trace_sink(&SecondSink);
                Trace("one");
                set_util_external_trace_sink(&FirstSink);
            });
            Trace("two");
            Trace("three");
        }
        Trace("four");
        SCHEDULE_EXPECT(s_nSecond >= 1 && s_nFirst >= 1);
        SCHEDULE_EXPECT(s_nFirst + s_nSecond == 4);
    });
}

}  // namespace kelto_test
