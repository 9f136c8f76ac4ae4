package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import org.junit.jupiter.api.Test;

class ProcessJsonTest {

    @Test
    void oneLineWithTheLibrarysNames() {
        assertEquals("{\"timestamp\":86430,\"processes\":["
                + "{\"id\":1,\"create_time\":17,\"name\":\"a\\\"\\\\\",\"cpu\":3,\"mem\":"
                + "18446744073709551615,\"disk\":0,\"user_name\":\"alice\"},"
                + "{\"id\":2,\"create_time\":0,\"name\":\"é名\",\"cpu\":null,\"mem\":1,\"disk\":2,"
                + "\"user_name\":\"\"}]}",
                ProcessJson.render(86430, List.of(
                        new ProcessFigure(1, 17, "a\"\\", 3, -1, 0, "alice"),
                        new ProcessFigure(2, 0, "é名", ProcessFigure.NO_FIGURE, 1, 2, ""))));
        assertEquals("{\"timestamp\":0,\"processes\":[]}", ProcessJson.render(0, List.of()));
    }
}
