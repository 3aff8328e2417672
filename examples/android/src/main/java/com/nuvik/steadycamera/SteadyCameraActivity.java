// SPDX-License-Identifier: Apache-2.0

package com.nuvik.steadycamera;

import android.Manifest;
import android.content.pm.PackageManager;
import android.graphics.Bitmap;
import android.graphics.Canvas;
import android.graphics.Rect;
import android.os.Bundle;
import android.util.Log;
import android.util.Size;
import android.view.SurfaceHolder;
import android.view.SurfaceView;
import androidx.activity.ComponentActivity;
import androidx.activity.result.contract.ActivityResultContracts;
import androidx.camera.core.CameraSelector;
import androidx.camera.core.ImageAnalysis;
import androidx.camera.core.ImageProxy;
import androidx.camera.lifecycle.ProcessCameraProvider;
import androidx.core.content.ContextCompat;
import com.google.common.util.concurrent.ListenableFuture;
import com.nuvik.stabilizer.SteadyPicture;
import com.nuvik.stabilizer.VideoStabilizer;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;

/** Shows what the camera sees, steadied, a third of a second later. */
public class SteadyCameraActivity extends ComponentActivity {
    private static final String TAG = "SteadyCamera";

    // All pictures pass through this thread, to which the next two belong.
    private final ExecutorService worker = Executors.newSingleThreadExecutor();
    private VideoStabilizer stabilizer;
    private Bitmap shown;
    private SurfaceView view;

    @Override
    protected void onCreate(Bundle state) {
        super.onCreate(state);
        view = new SurfaceView(this);
        setContentView(view);
        if (ContextCompat.checkSelfPermission(this, Manifest.permission.CAMERA)
                == PackageManager.PERMISSION_GRANTED) {
            open();
        } else {
            registerForActivityResult(new ActivityResultContracts.RequestPermission(), granted -> {
                if (granted) {
                    open();
                }
            }).launch(Manifest.permission.CAMERA);
        }
    }

    private void open() {
        ListenableFuture<ProcessCameraProvider> future = ProcessCameraProvider.getInstance(this);
        future.addListener(() -> {
            try {
                ImageAnalysis analysis = new ImageAnalysis.Builder()
                        .setTargetResolution(new Size(1280, 720))
                        .setOutputImageFormat(ImageAnalysis.OUTPUT_IMAGE_FORMAT_RGBA_8888)
                        .setBackpressureStrategy(ImageAnalysis.STRATEGY_KEEP_ONLY_LATEST)
                        .build();
                analysis.setAnalyzer(worker, this::steady);
                future.get().bindToLifecycle(this, CameraSelector.DEFAULT_BACK_CAMERA, analysis);
            } catch (ExecutionException | InterruptedException e) {
                Log.e(TAG, "no camera", e);
            }
        }, ContextCompat.getMainExecutor(this));
    }

    // RGBA goes straight into a bitmap. Encoders rather take YUV_420_888, whose planes are the arguments
    // of the other push.
    private void steady(ImageProxy image) {
        try (ImageProxy picture = image) {
            if (stabilizer == null) {
                stabilizer = new VideoStabilizer.Builder(picture.getWidth(), picture.getHeight())
                        .format("rgba").build();
                shown = Bitmap.createBitmap(picture.getWidth(), picture.getHeight(),
                        Bitmap.Config.ARGB_8888);
            }
            ImageProxy.PlaneProxy pixels = picture.getPlanes()[0];
            boolean taken = stabilizer.push(pixels.getBuffer(), pixels.getRowStride(),
                    picture.getImageInfo().getTimestamp());
            if (!taken) {
                Log.w(TAG, "a picture is dropped: the device is too slow");
            }
        }
        for (SteadyPicture steady; (steady = stabilizer.poll()) != null; steady.close()) {
            shown.copyPixelsFromBuffer(steady.plane(0));
            show();
        }
    }

    private void show() {
        SurfaceHolder holder = view.getHolder();
        Canvas canvas = holder.lockCanvas();
        if (canvas != null) {
            canvas.drawBitmap(shown, null, new Rect(0, 0, canvas.getWidth(), canvas.getHeight()), null);
            holder.unlockCanvasAndPost(canvas);
        }
    }

    @Override
    protected void onDestroy() {
        worker.execute(() -> {
            if (stabilizer != null) {
                stabilizer.close();
            }
        });
        worker.shutdown();
        super.onDestroy();
    }
}
