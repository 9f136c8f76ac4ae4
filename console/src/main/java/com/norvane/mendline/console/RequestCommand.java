package com.norvane.mendline.console;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.CodingErrorAction;
import java.nio.charset.StandardCharsets;
import picocli.CommandLine.Command;
import picocli.CommandLine.Parameters;

/** Sends a request as it is and prints the answer as it is. */
@Command(name = "request",
        description = {
            "Send one request, as XML, and print the answer exactly as it came.",
            "",
            "On a terminal the answer's control characters are written out and a line feed is added;"
                + " anywhere else the answer is printed byte for byte, in UTF-8.",
            "",
            "Requests that reach into the session table (ClearShm, ProtocolInfo) are refused until"
                + " a collector has been started in the same process, because the library would"
                + " crash. Use them in the shell, after start.",
        },
        footer = {
            "Example:",
            "  mendline request '<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>'",
        })
final class RequestCommand extends ConsoleCommand {

    @Parameters(paramLabel = "XML", description = "The request, or - to read it from standard input.")
    private String request;

    RequestCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() throws IOException {
        String raw = context().connection().send(request.equals("-") ? readRequest() : request);
        if (raw != null) {
            print(raw);
        }
        Answer answer = Answer.parse(raw);
        return answer.error().isPresent() ? ExitCodes.LIBRARY_ERROR : ExitCodes.OK;
    }

    private String readRequest() throws IOException {
        if (context().inShell()) {
            throw usage("in the shell, standard input holds the commands: give the request itself");
        }
        try {
            return StandardCharsets.UTF_8.newDecoder()
                    .decode(ByteBuffer.wrap(context().in().readAllBytes())).toString();
        } catch (CharacterCodingException e) {
            throw usage("the request is not valid UTF-8");
        }
    }

    private void print(String raw) throws IOException {
        PrintStream out = context().out();
        if (context().terminal().output()) {
            out.println(TerminalText.lines(raw));
        } else {
            // An unpaired surrogate has no UTF-8; the default would be an innocent question mark.
            ByteBuffer bytes = StandardCharsets.UTF_8.newEncoder()
                    .onMalformedInput(CodingErrorAction.REPLACE)
                    .replaceWith("\uFFFD".getBytes(StandardCharsets.UTF_8))
                    .encode(CharBuffer.wrap(raw));
            out.write(bytes.array(), 0, bytes.limit());
        }
        out.flush();
    }
}
