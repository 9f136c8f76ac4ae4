package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import org.junit.jupiter.api.Test;

class HistoryJsonTest {

    @Test
    void oneLineWithTheLibrarysNamesAndNullForNoFigure() {
        assertEquals("{\"userName\":\"a\\\"\\u202e\",\"display\":\"1\\\\\",\"metrics\":["
                + "{\"timestamp\":18446744073709551615,\"overall_cpu\":18446744073709551615,"
                + "\"overall_mem\":43,\"disk_iops_reads\":null,\"disk_iops_writes\":17,"
                + "\"disk_latency\":2,\"flare_latency\":-18,\"cpu\":4,\"mem\":6},"
                + "{\"timestamp\":5,\"overall_cpu\":1,\"overall_mem\":2,\"disk_iops_reads\":3,"
                + "\"disk_iops_writes\":4,\"disk_latency\":5,\"flare_latency\":null,\"cpu\":null,"
                + "\"mem\":null}]}",
                HistoryJson.render("a\"\u202e", "1\\", new History(List.of(
                        HistoryTableTest.record(-1, "18446744073709551615 43 - 17 2 -18 4 6"),
                        HistoryTableTest.record(5, "1 2 3 4 5 - - -")))));
        assertEquals("{\"userName\":\"\",\"display\":\"\",\"metrics\":[]}",
                HistoryJson.render("", "", new History(List.of())));
    }
}
