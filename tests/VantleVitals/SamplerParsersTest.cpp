#include "VantleVitals/ProcFs.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace vantle::procfs;

TEST(ProcStat, SplitsTheCpuLinesAndReadsBootTime) {
    auto s = parseStat("cpu  100 20 30 400 50 6 4 10 7 0\n"
                       "cpu0 60 10 15 200 25 3 2 5 7 0\n"
                       "cpu2 40 10 15 200 25 3 2 5\n" // an offline core between them
                       "cpu3 garbage 1 2 3\n"
                       "intr 12345 0 0\n"
                       "btime 1767225600\n"
                       "processes 900\n");
    ASSERT_TRUE(s.all);
    EXPECT_EQ(s.all->user, 120u);  // user + nice (guest is already inside user)
    EXPECT_EQ(s.all->system, 40u); // system + irq + softirq
    EXPECT_EQ(s.all->idle, 450u);  // idle + iowait
    EXPECT_EQ(s.all->other, 10u);  // steal
    ASSERT_EQ(s.cores.size(), 2u);
    EXPECT_EQ(s.cores[0].first, 0);
    EXPECT_EQ(s.cores[1].first, 2);
    EXPECT_EQ(s.cores[1].second.total(), 300u);
    EXPECT_EQ(s.bootTime, 1767225600);

    auto odd = parseStat("cpu 1 2\nbtime soon\n");
    EXPECT_FALSE(odd.all);
    EXPECT_FALSE(odd.bootTime);
    EXPECT_TRUE(parseStat("").cores.empty());
}

TEST(ProcStat, BusyBetweenTwoReadingsAndCountersThatWentBack) {
    CpuTimes before{100, 50, 800, 50}, after{250, 100, 900, 50};
    EXPECT_DOUBLE_EQ(busyBetween(before, after), 200.0 / 300.0);
    EXPECT_DOUBLE_EQ(busyBetween(before, before), 0);
    EXPECT_DOUBLE_EQ(busyBetween(after, before), 0);
    EXPECT_DOUBLE_EQ(busyBetween({}, CpuTimes{0, 0, 10, 0}), 0);
}

TEST(ProcPressure, ReadsTheTenSecondAveragesAndMapsThemToALevel) {
    auto p = parsePressure("some avg10=12.50 avg60=3.00 avg300=1.00 total=123\n"
                           "full avg10=2.25 avg60=0.00 avg300=0.00 total=45\n");
    ASSERT_TRUE(p);
    EXPECT_DOUBLE_EQ(p->someAvg10, 12.5);
    EXPECT_DOUBLE_EQ(p->fullAvg10, 2.25);
    EXPECT_FALSE(parsePressure(""));
    EXPECT_FALSE(parsePressure("full avg10=1.00\n")); // "some" is the line every kernel writes

    using P = VitalsSnapshot::Pressure;
    EXPECT_EQ(pressureLevel(Pressure{9.99, 0}, 0, 100), P::normal); // the stall figures win over free memory
    EXPECT_EQ(pressureLevel(Pressure{10, 0}, 100, 100), P::warning);
    EXPECT_EQ(pressureLevel(Pressure{39, 9.9}, 100, 100), P::warning);
    EXPECT_EQ(pressureLevel(Pressure{40, 0}, 100, 100), P::critical);
    EXPECT_EQ(pressureLevel(Pressure{10, 10}, 100, 100), P::critical);
    EXPECT_EQ(pressureLevel(std::nullopt, 10, 100), P::normal);
    EXPECT_EQ(pressureLevel(std::nullopt, 9, 100), P::warning);
    EXPECT_EQ(pressureLevel(std::nullopt, 4, 100), P::critical);
    EXPECT_EQ(pressureLevel(std::nullopt, 0, 0), P::normal);
}

TEST(ProcLists, CoreListsInterfacesDisksAndUptime) {
    EXPECT_EQ(parseCpuList("0-3,8,10-11\n"), (std::vector<int>{0, 1, 2, 3, 8, 10, 11}));
    EXPECT_EQ(parseCpuList("5-2,x,7"), (std::vector<int>{7}));
    EXPECT_TRUE(parseCpuList("").empty());

    auto net = parseNetDev("Inter-|   Receive                            |  Transmit\n"
                           " face |bytes    packets errs drop fifo frame compressed multicast|bytes packets\n"
                           "    lo: 5000 10 0 0 0 0 0 0 5000 10 0 0 0 0 0 0\n"
                           "  eth0:1234567 900 0 0 0 0 0 0 7654321 800 0 0 0 0 0 0\n"
                           " wlan0: 1 2 3\n");
    ASSERT_EQ(net.size(), 2u);
    EXPECT_EQ(net[1].name, "eth0");
    EXPECT_EQ(net[1].received, 1234567u);
    EXPECT_EQ(net[1].sent, 7654321u);

    auto disks = parseDiskstats("   8       0 sda 100 5 2048 30 200 6 4096 40 0 50 70\n"
                                "   8       1 sda1 90 5 2000 30 190 6 4000 40 0 50 70\n"
                                "   7       0 loop0 1 0\n");
    ASSERT_EQ(disks.size(), 2u);
    EXPECT_EQ(disks[0].sectorsRead, 2048u);
    EXPECT_EQ(disks[0].sectorsWritten, 4096u);

    EXPECT_EQ(parseUptime("12345.67 4567.89\n"), 12345.67);
    EXPECT_FALSE(parseUptime("-1 0"));
    EXPECT_FALSE(parseUptime(""));
}

TEST(ProcProcess, StatWithAnAwkwardNameStatusAndIo) {
    auto s = parseProcessStat("4242 (my (odd) name) S 1 4242 4242 0 -1 4194560 500 0 0 0 "
                              "250 50 0 0 20 0 7 0 123456 1000000 2560 18446744073709551615\n");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->pid, 4242);
    EXPECT_EQ(s->name, "my (odd) name");
    EXPECT_EQ(s->state, 'S');
    EXPECT_EQ(s->parent, 1);
    EXPECT_EQ(s->userTicks, 250u);
    EXPECT_EQ(s->systemTicks, 50u);
    EXPECT_EQ(s->threads, 7);
    EXPECT_EQ(s->startTicks, 123456u);
    EXPECT_EQ(s->residentPages, 2560u);
    EXPECT_FALSE(s->kernelThread);

    auto k = parseProcessStat("2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 3 0 0 20 0 1 0 1 0 0 1");
    ASSERT_TRUE(k);
    EXPECT_TRUE(k->kernelThread);
    EXPECT_FALSE(parseProcessStat("4242 (cut short) S 1 2 3"));
    EXPECT_FALSE(parseProcessStat("no parentheses at all"));

    auto status = parseProcessStatus("Name:\tnode\nUid:\t1000\t1000\t1000\t1000\nVmRSS:\t  2048 kB\n"
                                     "RssAnon:\t  1024 kB\nVmSwap:\t 512 kB\nvoluntary_ctxt_switches:\t77\n");
    EXPECT_EQ(status.uid, 1000u);
    EXPECT_EQ(status.residentBytes, 2048u * 1024);
    EXPECT_EQ(status.anonymousBytes, 1024u * 1024);
    EXPECT_EQ(status.swappedBytes, 512u * 1024);
    EXPECT_EQ(status.voluntarySwitches, 77u);
    EXPECT_FALSE(parseProcessStatus("Name:\tkworker\n").anonymousBytes);

    auto io =
        parseProcessIo("rchar: 1\nwchar: 2\nread_bytes: 4096\nwrite_bytes: 8192\ncancelled_write_bytes: 0\n");
    ASSERT_TRUE(io);
    EXPECT_EQ(io->readBytes, 4096u);
    EXPECT_EQ(io->writtenBytes, 8192u);
    EXPECT_FALSE(parseProcessIo("rchar: 1\n"));
}
