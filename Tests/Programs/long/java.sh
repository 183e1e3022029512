# Java: compiler and virtual machine, monitors, pools, children, sockets and hooks at the end.
# packages: openjdk-17-jdk-headless
cat > Program.java <<'END'
import java.io.*; import java.net.*; import java.nio.*; import java.nio.channels.*; import java.nio.file.*; import java.util.*; import java.util.concurrent.*; import java.util.concurrent.atomic.*; import java.util.stream.*;
public class Program {
    static int shared;
    public static void main(String[] a) throws Exception {
        Runtime.getRuntime().addShutdownHook(new Thread(() -> System.out.println("hook")));
        Thread[] threads = new Thread[8];
        for (int i = 0; i < 8; i++) { threads[i] = new Thread(() -> { for (int j = 0; j < 20000; j++) synchronized (Program.class) { shared++; } }); threads[i].start(); }
        for (Thread t : threads) t.join(); System.out.println(shared);
        ExecutorService pool = Executors.newFixedThreadPool(4); List<Future<Integer>> all = new ArrayList<>();
        for (int i = 0; i < 200; i++) { final int n = i; all.add(pool.submit(() -> { Thread.sleep(1); return n * n; })); }
        int sum = 0; for (Future<Integer> f : all) sum += f.get(); System.out.println(sum); pool.shutdown();
        System.out.println(IntStream.range(0, 2000000).parallel().filter(x -> x % 7 == 3).count());
        Process p = new ProcessBuilder("sh", "-c", "cat; exit 5").start(); p.getOutputStream().write("through".getBytes()); p.getOutputStream().close();
        System.out.println(new String(p.getInputStream().readAllBytes()) + p.waitFor());
        for (int i = 0; i < 10; i++) if (new ProcessBuilder("true").start().waitFor() != 0) System.out.println("true failed");
        try { new ProcessBuilder("/nonexistent").start(); } catch (IOException e) { System.out.println(e.getMessage()); }
        try (ServerSocket s = new ServerSocket(0, 5, InetAddress.getLoopbackAddress())) { Thread t = new Thread(() -> { try (Socket c = s.accept()) { c.getInputStream().transferTo(c.getOutputStream()); } catch (IOException e) { System.out.println(e); } }); t.start();
            try (Socket c = new Socket(s.getInetAddress(), s.getLocalPort())) { c.getOutputStream().write("echoed".getBytes()); c.shutdownOutput(); System.out.println(new String(c.getInputStream().readAllBytes())); } t.join(); }
        try (FileChannel f = FileChannel.open(Path.of("mapped"), StandardOpenOption.CREATE, StandardOpenOption.READ, StandardOpenOption.WRITE)) { MappedByteBuffer m = f.map(FileChannel.MapMode.READ_WRITE, 0, 1 << 20); for (int i = 0; i < m.capacity(); i += 4) m.putInt(i, i); m.force(); System.out.println(f.lock() != null); }
        Object lock = new Object(); synchronized (lock) { lock.wait(20); } Thread parked = new Thread(() -> java.util.concurrent.locks.LockSupport.park()); parked.start(); java.util.concurrent.locks.LockSupport.unpark(parked); parked.join();
        long used = 0; for (int i = 0; i < 200; i++) used += new byte[1 << 20].length; System.gc(); System.out.println(used);
        try { recurse(0); } catch (StackOverflowError e) { System.out.println("overflow"); } try { Object o = null; o.hashCode(); } catch (NullPointerException e) { System.out.println("null"); }
        System.exit(4);
    }
    static int recurse(int n) { return recurse(n + 1) + 1; }
}
END
javac Program.java && java -Xmx256m -cp . Program; echo $?
java -Xmx256m -XX:+UseSerialGC -cp . Program | md5sum; jar cf a.jar Program.class && jar tf a.jar
java -version 2> /dev/null; echo $?; java Nosuch 2> /dev/null; echo $?
exit 0
