import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/**
 * What a Java program would do without a native library: it reads the files of /proc itself.
 *
 * <p>Order: "tick", the processes with the figures that a tick keeps of them, and the figures of
 * the host. The line protocol is that of Subject.h. The time is left to whoever gives the order,
 * because the clock of the virtual machine's own processor time has steps of 10 ms.
 */
final class ProcReader {
  private static final long FACTOR = 0x9E3779B97F4A7C15L;
  private static final int SHIFT = 29;
  private static final long TICKS_PER_SECOND = 100;
  private static final long PAGE_SIZE = 4096;

  // Columns behind the name, the state being the first.
  private static final int USER_TIME = 11;
  private static final int SYSTEM_TIME = 12;
  private static final int START_TIME = 19;
  private static final int RESIDENT = 21;

  private record ProcessFigures(
      int pid,
      String name,
      String user,
      long ticks,
      long memory,
      long createTime,
      long bytesRead,
      long bytesWritten) {}

  private record HostFigures(String cpu, String memory, String disks) {}

  private ProcReader() {}

  private static long counter(String text, String key) {
    int begin = text.indexOf(key) + key.length();
    int end = text.indexOf('\n', begin);
    return Long.parseLong(text.substring(begin, end).trim());
  }

  private static ProcessFigures read(Path folder, long bootTime) throws IOException {
    String stat = Files.readString(folder.resolve("stat"));
    int nameEnd = stat.lastIndexOf(')');
    String[] columns = stat.substring(nameEnd + 2).split(" ");
    String io = Files.readString(folder.resolve("io"));
    return new ProcessFigures(
        Integer.parseInt(folder.getFileName().toString()),
        stat.substring(stat.indexOf('(') + 1, nameEnd),
        Files.getOwner(folder).getName(),
        Long.parseLong(columns[USER_TIME]) + Long.parseLong(columns[SYSTEM_TIME]),
        Long.parseLong(columns[RESIDENT]) * PAGE_SIZE,
        bootTime + Long.parseLong(columns[START_TIME]) / TICKS_PER_SECOND,
        counter(io, "rchar:"),
        counter(io, "wchar:"));
  }

  private static List<ProcessFigures> tick() throws IOException {
    HostFigures host =
        new HostFigures(
            Files.readString(Path.of("/proc/stat")),
            Files.readString(Path.of("/proc/meminfo")),
            Files.readString(Path.of("/proc/diskstats")));
    long bootTime = counter(host.cpu(), "btime");
    List<ProcessFigures> processes = new ArrayList<>();
    try (DirectoryStream<Path> folders = Files.newDirectoryStream(Path.of("/proc"), "[0-9]*")) {
      for (Path folder : folders) {
        processes.add(read(folder, bootTime));
      }
    }
    return processes;
  }

  private static long hashOf(List<ProcessFigures> processes) {
    long hash = 0;
    for (ProcessFigures process : processes) {
      long mixed = process.pid() * FACTOR;
      mixed ^= mixed >>> SHIFT;
      hash += mixed * FACTOR;
    }
    return hash;
  }

  public static void main(String[] arguments) throws IOException {
    BufferedReader orders = new BufferedReader(new InputStreamReader(System.in));
    for (String line = orders.readLine(); line != null; line = orders.readLine()) {
      String[] order = line.split(" ");
      if (!order[0].equals("tick")) {
        System.exit(64);
      }
      List<ProcessFigures> processes = List.of();
      for (int repeat = Integer.parseInt(order[1]); repeat > 0; --repeat) {
        processes = tick();
      }
      System.out.println(
          "- " + processes.size() + " " + Long.toUnsignedString(hashOf(processes)));
    }
  }
}
