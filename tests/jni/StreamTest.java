// SPDX-License-Identifier: Apache-2.0

import com.nuvik.stabilizer.StabilizerException;
import com.nuvik.stabilizer.SteadyPicture;
import com.nuvik.stabilizer.VideoStabilizer;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * Streams in a VM with a small heap that is full of garbage. Exits with 0 where all is as it should be. With
 * a number: opens and closes so many streams, for a tool that watches memory.
 */
public class StreamTest {
    private static final int WIDTH = 193;
    private static final int HEIGHT = 145;
    private static final int HALF = (WIDTH + 1) / 2;
    private static final int HALF_ROWS = (HEIGHT + 1) / 2;
    private static final int FRAMES = 30;
    private static volatile Object garbage;

    public static void main(String[] arguments) throws Exception {
        if (arguments.length > 0) {
            openAndClose(Integer.parseInt(arguments[0]));
            for (int i = 0; i < 20; ++i) {  // what is left to the garbage collector
                System.gc();
                Thread.sleep(20);
                openAndClose(1);
            }
            System.out.println("done");
            return;
        }
        anyLayoutGivesTheSame();
        onePlane();
        refuses();
        flushesAndChanges();
        survivesCloseInOtherThreads();
        leavesNothing();
        System.out.println("done");
    }

    private static VideoStabilizer.Builder builder(String format) {
        return new VideoStabilizer.Builder(WIDTH, HEIGHT).format(format).option("engine", 1);
    }

    private static void check(boolean holds, String what) {
        if (!holds) {
            throw new AssertionError(what);
        }
    }

    private static void refuse(Class<? extends Exception> type, String text, Runnable call) {
        try {
            call.run();
        } catch (RuntimeException e) {
            check(type.isInstance(e) && String.valueOf(e.getMessage()).contains(text), e.toString());
            return;
        }
        throw new AssertionError("not refused: " + text);
    }

    private static byte sample(int x, int y, int plane, int frame) {
        double moved = x + 5 * Math.sin(1.9 * frame);
        double down = y + 4 * Math.cos(2.3 * frame);
        return (byte) (128 + 60 * Math.sin(moved * 0.21 + plane) + 60 * Math.cos(down * 0.17)
                + 5 * Math.sin(moved * down * 0.01));
    }

    /** A plane with samples `step` apart, the first at `start`. */
    private static void fill(ByteBuffer to, int start, int stride, int step, int columns, int rows,
            int plane, int frame) {
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < columns; ++x) {
                to.put(start + y * stride + x * step, sample(x, y, plane, frame));
            }
        }
    }

    /** Pushes a frame with chroma `step` apart; at 2, V comes first where asked, as cameras do. */
    private static boolean push(VideoStabilizer s, int frame, int step, boolean vFirst, int padding) {
        int stride = WIDTH + padding;
        ByteBuffer y = ByteBuffer.allocateDirect(stride * HEIGHT);
        fill(y, 0, stride, 1, WIDTH, HEIGHT, 0, frame);
        int chroma = HALF * step + padding;
        ByteBuffer uv = ByteBuffer.allocateDirect(chroma * HALF_ROWS * (step == 1 ? 2 : 1));
        int second = step == 1 ? chroma * HALF_ROWS : 1;
        fill(uv, vFirst ? second : 0, chroma, step, HALF, HALF_ROWS, 1, frame);
        fill(uv, vFirst ? 0 : second, chroma, step, HALF, HALF_ROWS, 2, frame);
        ByteBuffer u = uv.asReadOnlyBuffer();
        ByteBuffer v = uv.duplicate();
        u.position(vFirst ? second : 0);
        v.position(vFirst ? 0 : second);
        garbage = new byte[1 << 20];
        return s.push(y, stride, u, v, chroma, step, 1000L + frame);
    }

    private static byte[] bytes(SteadyPicture p) {
        int size = 0;
        for (int k = 0; k < p.planeCount(); ++k) {
            size += p.plane(k).remaining();
        }
        ByteBuffer all = ByteBuffer.allocate(size);
        for (int k = 0; k < p.planeCount(); ++k) {
            all.put(p.plane(k));
        }
        return all.array();
    }

    private static List<byte[]> run(VideoStabilizer s, int step, boolean vFirst, int padding) {
        List<byte[]> steady = new ArrayList<>();
        for (int frame = 0; frame < FRAMES; ++frame) {
            while (!push(s, frame, step, vFirst, padding)) {
                take(s, steady);
            }
        }
        s.drain();
        while (take(s, steady)) {
        }
        check(steady.size() == FRAMES, "as many come out");
        return steady;
    }

    private static boolean take(VideoStabilizer s, List<byte[]> steady) {
        try (SteadyPicture p = s.take()) {
            if (p != null) {
                check(p.number() == steady.size() && p.timestampNs() == 1000 + p.number(), "order");
                check(p.isSceneStart() == (p.number() == 0), "scene");
                check(p.crop() == 0.9F && p.correction().length == 9, "report");
                steady.add(bytes(p));
            }
            return p != null;
        }
    }

    private static void anyLayoutGivesTheSame() {
        byte[] pairs = null;
        for (String format : new String[] {"yuv420p", "nv12", "nv21"}) {
            byte[] first = null;
            for (int layout = 0; layout < 4; ++layout) {
                try (VideoStabilizer s = builder(format).build()) {
                    byte[] last = run(s, layout / 2 + 1, layout % 2 == 1, 3 * layout).get(FRAMES - 5);
                    first = first == null ? last : first;
                    check(Arrays.equals(first, last), format + " from layout " + layout);
                }
            }
            if (format.equals("nv12")) {
                pairs = first;
            }
            for (int i = WIDTH * HEIGHT; i < first.length && format.equals("nv21"); ++i) {
                check(first[i] == pairs[i + 1 - 2 * ((i - WIDTH * HEIGHT) % 2)], "U and V");
            }
        }
    }

    private static void onePlane() {
        try (VideoStabilizer s = builder("rgba").build()) {
            ByteBuffer pixels = ByteBuffer.allocateDirect(4 * WIDTH * HEIGHT);
            while (s.push(pixels, 4 * WIDTH, 7)) {
            }
            SteadyPicture p = s.take();
            check(p.timestampNs() == 7 && p.rowStride(0) == 4 * WIDTH, "one plane");
        }
    }

    private static void refuses() {
        refuse(IllegalArgumentException.class, "16",
                () -> new VideoStabilizer.Builder(15, 15).build());
        refuse(IllegalArgumentException.class, "format", () -> builder("mauve").build());
        refuse(IllegalArgumentException.class, "strength", () -> builder("gray").strength("x").build());
        refuse(IllegalArgumentException.class, "colour", () -> builder("gray").option("colour", 1).build());
        refuse(IllegalArgumentException.class, "sigma", () -> builder("gray").option("sigma", -1).build());
        try (VideoStabilizer s = builder("yuv420p").build()) {
            ByteBuffer large = ByteBuffer.allocateDirect(WIDTH * HEIGHT);
            ByteBuffer small = ByteBuffer.allocateDirect(HALF * HALF_ROWS - 1);
            refuse(IllegalArgumentException.class, "direct",
                    () -> s.push(ByteBuffer.allocate(99), WIDTH, large, large, HALF, 1, 0));
            refuse(IllegalArgumentException.class, "shorter",
                    () -> s.push(large, WIDTH, large, small, HALF, 1, 0));
            refuse(IllegalArgumentException.class, "stride",
                    () -> s.push(large, WIDTH - 1, large, large, HALF, 1, 0));
            refuse(IllegalArgumentException.class, "stride",
                    () -> s.push(large, WIDTH, large, large, HALF, 3, 0));
            refuse(IllegalArgumentException.class, "planes", () -> s.push(large, WIDTH, 0));
        }
    }

    private static void flushesAndChanges() {
        try (VideoStabilizer s = builder("yuv420p").build()) {
            check(s.latency() == 10 && s.poll() == null && s.poll(60) == null, "nothing yet");
            List<byte[]> first = run(s, 1, false, 0);
            refuse(StabilizerException.class, "drain", () -> push(s, 0, 1, false, 0));
            s.flush();
            List<byte[]> again = run(s, 2, true, 0);
            check(Arrays.equals(first.get(7), again.get(7)), "flushed is as new");
            s.flush();
            s.change(5, 0.8F);
            refuse(IllegalArgumentException.class, "crop", () -> s.change(5, 0.1F));
        }
    }

    private static void survivesCloseInOtherThreads() throws Exception {
        for (int round = 0; round < 20; ++round) {
            VideoStabilizer s = builder("nv12").build();
            AtomicInteger closed = new AtomicInteger();
            Thread[] threads = new Thread[4];
            for (int k = 0; k < threads.length; ++k) {
                boolean pushes = k % 2 == 0;
                threads[k] = new Thread(() -> {
                    try {
                        for (int frame = 0;; ++frame) {
                            if (pushes) {
                                push(s, frame, 1, false, 0);
                            } else {
                                s.take();
                            }
                        }
                    } catch (IllegalStateException e) {
                        closed.incrementAndGet();
                    }
                });
                threads[k].start();
            }
            Thread.sleep(20);
            s.close();
            s.close();
            for (Thread thread : threads) {
                thread.join();
            }
            check(closed.get() == threads.length, "all were told");
            refuse(IllegalStateException.class, "closed", s::poll);
        }
    }

    private static long residentKiB() throws java.io.IOException {
        for (String line : java.nio.file.Files.readAllLines(java.nio.file.Paths.get("/proc/self/status"))) {
            if (line.startsWith("VmRSS:")) {
                return Long.parseLong(line.replaceAll("[^0-9]", ""));
            }
        }
        return 0;
    }

    /** Every other stream is left to the garbage collector. */
    private static void openAndClose(int count) {
        ByteBuffer grey = ByteBuffer.allocateDirect(64 * 48);
        for (int i = 0; i < count; ++i) {
            VideoStabilizer s = new VideoStabilizer.Builder(64, 48).format("gray").option("engine", 1)
                    .option("threads", 1).build();
            s.push(grey, 64, i);
            if (i % 2 == 0) {
                s.close();
            } else if (i % 50 == 1) {
                System.gc();
            }
        }
        System.gc();
    }

    private static void leavesNothing() throws Exception {
        openAndClose(300);
        long before = residentKiB();
        String count = System.getenv("STREAMS");
        openAndClose(count == null ? 1000 : Integer.parseInt(count));
        long grown = residentKiB() - before;
        check(grown < 60_000, grown + " KiB are left");  // a stream has more than 300
    }
}
