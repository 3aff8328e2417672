// SPDX-License-Identifier: Apache-2.0

package com.nuvik.stabilizer;

import java.lang.ref.PhantomReference;
import java.lang.ref.ReferenceQueue;
import java.nio.ByteBuffer;
import java.util.ArrayDeque;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * A stream: shaky pictures in, steady pictures out, in the same order, once {@link #latency} later ones
 * are in.
 *
 * <pre>{@code
 * try (VideoStabilizer stabilizer = new VideoStabilizer.Builder(1280, 720).build()) {
 *     stabilizer.push(y, rowStrideY, u, v, rowStrideUV, pixelStrideUV, timestampNs);
 *     for (SteadyPicture steady; (steady = stabilizer.poll()) != null; steady.close()) {
 *         show(steady);
 *     }
 * }
 * }</pre>
 *
 * <p>All methods may be called from any thread at any time, also while another thread closes the
 * stabiliser: they then throw {@link IllegalStateException}. Arguments that are refused throw {@link
 * IllegalArgumentException}, everything else {@link StabilizerException}, both with the library's text.
 */
public final class VideoStabilizer implements AutoCloseable {
    static {
        System.loadLibrary("videostabilizer");
    }

    // Waits are divided, so that a stream can be closed meanwhile.
    private static final int SLICE_MS = 50;
    private static final int AGAIN = 1;

    // Streams that nobody closed.
    private static final ReferenceQueue<VideoStabilizer> LOST = new ReferenceQueue<>();
    private static final Set<Handle> HANDLES =
            Collections.newSetFromMap(new ConcurrentHashMap<Handle, Boolean>());

    private static final class Handle extends PhantomReference<VideoStabilizer> {
        private final AtomicLong stream;

        Handle(VideoStabilizer owner, long stream) {
            super(owner, LOST);
            this.stream = new AtomicLong(stream);
            HANDLES.add(this);
        }

        void close() {
            HANDLES.remove(this);
            long opened = stream.getAndSet(0);
            if (opened != 0) {
                nativeClose(opened);
            }
        }
    }

    /** The options of a stabiliser. */
    public static final class Builder {
        private final int width;
        private final int height;
        private String format = "yuv420p";
        private String strength = "standard";
        private int waitMs;
        private final Map<String, Double> options = new LinkedHashMap<>();

        /**
         * Begins with strength "standard" and format "yuv420p".
         *
         * @param width pixels, from 16 on
         * @param height pixels, from 16 on
         */
        public Builder(int width, int height) {
            this.width = width;
            this.height = height;
        }

        /**
         * The format of the steady pictures, by its name in FFmpeg: yuv420p, nv12, nv21, gray, rgba,
         * bgra, rgb24, bgr24 and others. Those of 4:2:0 and 8 bits take pictures of any of the first
         * three.
         *
         * @param name the name
         * @return this
         */
        public Builder format(String name) {
            format = name;
            return this;
        }

        /**
         * The strength: gentle, standard, strong or maximum.
         *
         * @param name the name
         * @return this
         */
        public Builder strength(String name) {
            strength = name;
            return this;
        }

        /**
         * How long a push waits for room; without, not at all. Only makes sense where another thread
         * takes the steady pictures.
         *
         * @param milliseconds from 0 on
         * @return this
         */
        public Builder waitForRoom(int milliseconds) {
            waitMs = milliseconds;
            return this;
        }

        /**
         * Any other option, by its name in {@code VideoStabilizerStreamOptions}: look_ahead, sigma,
         * crop_ratio, frame_rate, threads, auto_crop, crop_least, crop_most, shutter, readout, engine, sampling ...
         *
         * @param name the name
         * @param value its value; 1 or 0 for switches
         * @return this
         */
        public Builder option(String name, double value) {
            options.put(name, value);
            return this;
        }

        /**
         * Opens the stream.
         *
         * @return the stabiliser
         */
        public VideoStabilizer build() {
            return new VideoStabilizer(this);
        }

        private String[] names() {
            return options.keySet().toArray(new String[0]);
        }

        private double[] values() {
            double[] values = new double[options.size()];
            int i = 0;
            for (double value : options.values()) {
                values[i++] = value;
            }
            return values;
        }
    }

    private final ReentrantReadWriteLock open = new ReentrantReadWriteLock();
    private final Handle handle;
    private final int waitMs;
    private final int latency;
    private final int[] rowBytes;
    private final int[] rows;
    private final ArrayDeque<SteadyPicture> unused = new ArrayDeque<>(); // guarded by itself
    private volatile boolean closed;

    private VideoStabilizer(Builder builder) {
        for (Object lost; (lost = LOST.poll()) != null; ) {
            ((Handle) lost).close();
        }
        waitMs = builder.waitMs;
        long stream = nativeOpen(builder.width, builder.height, builder.format, builder.strength,
                builder.names(), builder.values());
        handle = new Handle(this, stream);
        latency = nativeLatency(stream);
        int[] shape = nativeShape(stream);
        rows = new int[shape.length / 2];
        rowBytes = new int[shape.length / 2];
        for (int k = 0; k < rows.length; ++k) {
            rowBytes[k] = shape[2 * k];
            rows[k] = shape[2 * k + 1];
        }
    }

    /**
     * Gives a picture of three planes to the stream, which copies it. The arguments are those of the
     * planes of Android's {@code Image} in {@code YUV_420_888}.
     *
     * @param y direct buffer; read from its position on, which is not changed, like that of the next two
     * @param rowStrideY bytes
     * @param u direct buffer
     * @param v direct buffer
     * @param rowStrideUV bytes
     * @param pixelStrideUV bytes from a sample to the next: 1, or 2 where U and V are in turns
     * @param timestampNs comes back with the steady picture
     * @return false where there was no room, and nothing was taken: a steady picture is due
     */
    public boolean push(ByteBuffer y, int rowStrideY, ByteBuffer u, ByteBuffer v, int rowStrideUV,
            int pixelStrideUV, long timestampNs) {
        return push(y, rowStrideY, u, u.position(), v, v.position(), rowStrideUV, pixelStrideUV,
                timestampNs);
    }

    /**
     * Gives a picture of one plane to the stream, which copies it: grey or packed RGB.
     *
     * @param pixels direct buffer, read from its position on
     * @param rowStride bytes
     * @param timestampNs comes back with the steady picture
     * @return as above
     */
    public boolean push(ByteBuffer pixels, int rowStride, long timestampNs) {
        return push(pixels, rowStride, null, 0, null, 0, 0, 1, timestampNs);
    }

    private boolean push(ByteBuffer y, int rowStrideY, ByteBuffer u, int uStart, ByteBuffer v,
            int vStart, int rowStrideUV, int pixelStrideUV, long timestampNs) {
        int yStart = y.position();
        return call(waitMs, (stream, slice) -> nativePush(stream, y, yStart, rowStrideY, u, uStart, v,
                vStart, rowStrideUV, pixelStrideUV, timestampNs, slice)) != AGAIN;
    }

    /**
     * Takes the next steady picture if there is one.
     *
     * @return the picture, or null
     */
    public SteadyPicture poll() {
        return pull(0);
    }

    /**
     * Waits for the next steady picture.
     *
     * @return the picture; null after the last one of a drained stream
     */
    public SteadyPicture take() {
        return pull(-1);
    }

    /**
     * Waits for the next steady picture.
     *
     * @param milliseconds how long at most
     * @return the picture; null where there was none in time, and after the last one
     */
    public SteadyPicture poll(int milliseconds) {
        return pull(Math.max(milliseconds, 0));
    }

    private SteadyPicture pull(int timeoutMs) {
        SteadyPicture picture;
        synchronized (unused) {
            picture = unused.poll();
        }
        final SteadyPicture target =
                picture != null ? picture : new SteadyPicture(this, rowBytes, rows);
        int code = AGAIN;
        try {
            code = call(timeoutMs, (stream, slice) -> nativePull(stream, target.planes,
                    target.numbers, target.values, slice));
        } finally {
            if (code != 0) {
                recycle(target);
            }
        }
        if (code != 0) {
            return null;
        }
        target.reopen();
        return target;
    }

    /** Says that no more pictures come: those inside come out, then {@link #take} gives null. */
    public void drain() {
        call(0, (stream, slice) -> nativeDrain(stream));
    }

    /** Drops what is inside: the next picture begins a scene. Also restarts a drained stream. */
    public void flush() {
        call(0, (stream, slice) -> nativeFlush(stream));
    }

    /**
     * Changes the width of the smoothing and the crop while the stream runs, smoothly.
     *
     * @param sigma pictures
     * @param cropRatio 0.5 to 1
     */
    public void change(float sigma, float cropRatio) {
        call(0, (stream, slice) -> nativeChange(stream, sigma, cropRatio));
    }

    /**
     * Pictures between a push and its steady picture.
     *
     * @return from 1 on
     */
    public int latency() {
        return latency;
    }

    /** Drops what is inside and ends the stream. Pictures stay usable. A second call does nothing. */
    @Override
    public void close() {
        closed = true;
        open.writeLock().lock();
        try {
            handle.close();
        } finally {
            open.writeLock().unlock();
        }
    }

    void recycle(SteadyPicture picture) {
        synchronized (unused) {
            if (unused.size() < latency + 2) {
                unused.push(picture);
            }
        }
    }

    private interface Call {
        int make(long stream, int slice);
    }

    // A negative time-out waits without end.
    private int call(int timeoutMs, Call call) {
        long start = System.nanoTime();
        for (;;) {
            long left = timeoutMs < 0
                    ? SLICE_MS : timeoutMs - (System.nanoTime() - start) / 1_000_000;
            int code;
            open.readLock().lock();
            try {
                long stream = handle.stream.get();
                if (closed || stream == 0) {
                    throw new IllegalStateException("the stabiliser is closed");
                }
                code = call.make(stream, (int) Math.max(0, Math.min(left, SLICE_MS)));
            } finally {
                open.readLock().unlock();
            }
            if (code != AGAIN || (timeoutMs >= 0 && left <= SLICE_MS)) {
                return code;
            }
        }
    }

    private static native long nativeOpen(int width, int height, String format, String strength,
            String[] names, double[] values);

    private static native int nativeLatency(long stream);

    private static native int[] nativeShape(long stream);

    private static native int nativePush(long stream, ByteBuffer y, int yStart, int rowStrideY,
            ByteBuffer u, int uStart, ByteBuffer v, int vStart, int rowStrideUV, int pixelStrideUV,
            long timestampNs, int timeoutMs);

    private static native int nativePull(long stream, ByteBuffer[] planes, long[] numbers,
            float[] values, int timeoutMs);

    private static native int nativeDrain(long stream);

    private static native int nativeFlush(long stream);

    private static native int nativeChange(long stream, float sigma, float cropRatio);

    private static native void nativeClose(long stream);
}
