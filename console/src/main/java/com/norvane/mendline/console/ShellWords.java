package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.List;

/**
 * Splits a line of the shell into words. Quotes and backslash work as in a POSIX shell, without
 * anything being expanded.
 */
final class ShellWords {

    private ShellWords() {
    }

    /**
     * @return the words; none for an empty line and for a comment, which begins with '#'
     * @throws ConsoleException with {@link ExitCodes#USAGE} if a quote stays open or the line ends
     *     with a backslash
     */
    static List<String> split(String line) {
        List<String> words = new ArrayList<>();
        StringBuilder word = new StringBuilder();
        // Apart from the length, because '' is a word too.
        boolean inWord = false;
        char quote = 0;
        for (int i = 0; i < line.length(); i++) {
            char c = line.charAt(i);
            if (quote == '\'') {
                if (c == '\'') {
                    quote = 0;
                } else {
                    word.append(c);
                }
            } else if (c == '\\') {
                if (++i == line.length()) {
                    throw usage("the line ends with a backslash");
                }
                char escaped = line.charAt(i);
                if (quote == '"' && escaped != '"' && escaped != '\\') {
                    word.append('\\');
                }
                word.append(escaped);
                inWord = true;
            } else if (quote == '"') {
                if (c == '"') {
                    quote = 0;
                } else {
                    word.append(c);
                }
            } else if (c == '\'' || c == '"') {
                quote = c;
                inWord = true;
            } else if (c == ' ' || c == '\t' || c == '\r') {
                if (inWord) {
                    words.add(word.toString());
                    word.setLength(0);
                    inWord = false;
                }
            } else if (c == '#' && !inWord && words.isEmpty()) {
                return words;
            } else {
                word.append(c);
                inWord = true;
            }
        }
        if (quote != 0) {
            throw usage("a quote is not closed: " + quote);
        }
        if (inWord) {
            words.add(word.toString());
        }
        return words;
    }

    private static ConsoleException usage(String message) {
        return new ConsoleException(ExitCodes.USAGE, message);
    }
}
