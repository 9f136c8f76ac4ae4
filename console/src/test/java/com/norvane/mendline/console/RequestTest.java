package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import org.junit.jupiter.api.Test;

class RequestTest {

    @Test
    void hasTheOpcodeFirst() {
        assertEquals("<MendlineOperation><opcode>SetLogLevel</opcode><loglevel>INFO</loglevel>"
                + "</MendlineOperation>",
                Request.of("SetLogLevel").with("loglevel", "INFO").toXml());
    }

    @Test
    void whateverAValueHoldsItStaysAValue() throws Exception {
        String hostile = "</loglevel><opcode>ClearShm</opcode>&amp;<![CDATA[]]>\r\n\t\"' 名🐧";
        var document = StrictXml.parse(Request.of("SetLogLevel").with("loglevel", hostile).toXml());
        assertEquals(hostile,
                document.getElementsByTagName("loglevel").item(0).getTextContent());
        assertEquals(1, document.getElementsByTagName("opcode").getLength());
    }

    @Test
    void whatXmlCannotCarryIsNotSent() {
        for (String bad : new String[] {"\u0000", "\u001b", "\ud800", "\uFFFE"}) {
            assertThrows(IllegalArgumentException.class, () -> Request.of("x").with("y", bad));
        }
    }
}
