// SPDX-License-Identifier: Apache-2.0

// Life cycle of the stabilizer: module set-up, creation, start, stop, delete.

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "camera_motion/camera_motion.h"
#include "frames/picture_layout.h"
#include "gpu_warp/opencl_device.h"
#include "gpu_warp/opencl_picture_warper.h"
#include "path/steady_path.h"
#include "picture_stage/picture_stage.h"
#include "picture_warp/native_warper.h"
#include "picture_warp/stated_warper.h"
#include "pipeline/geometry.h"
#include "pipeline/live_settings.h"
#include "pipeline/stabilizer_internal.h"
#include "pipeline/stabilizer_options.h"
#include "platform/log.h"
#include "platform/log_sink.h"
#include "simplela/mat_util.h"
#include "warp/stage_internal.h"

namespace videostabilizer {

namespace {

constexpr int INPUT_CAPACITY = 3;   // frames
constexpr int OUTPUT_CAPACITY = 2;  // frames
constexpr int TIMEOUT_MS = 3000;
constexpr int MAX_POINTS = 256;
constexpr int WARP_POOL_SIZE = 2;  // frames in the warp stage: one queued, one being warped

constexpr int FAST_THRESHOLD = 25;  // grey levels

// 293 draws of six pairs contain one without outliers with a probability of 99 %, when half of all
// pairs are outliers: ceil(log(1 - 0.99) / log(1 - (1 - 0.5)^6)).
constexpr RansacParams RANSAC_PARAMS = {6, 2.0F, 0.5F, 0.99F, 293};

// The picture is halved for the analysis, at most twice, while its short side has at least 500
// pixels and its long side is more than 1.5 times the short one.
int choose_scale(int width, int height) {
    int shorter = std::min(width, height);
    int longer = std::max(width, height);
    int scale = 1;
    while (scale < 4 && shorter >= 500 && longer > (3 * shorter) >> 1) {
        shorter >>= 1;
        longer /= 2;
        scale *= 2;
    }
    return scale;
}

SimpleLA::Mat<float>* new_matrix() {
    auto* const matrix = new SimpleLA::Mat<float>(3, 3);
    if (matrix->data == nullptr) {
        delete matrix;
        throw std::bad_alloc();
    }
    return matrix;
}

void reset_frame_numbers(VideoStabilizer* s) {
    s->frame_index = s->output_index = -1;
    s->newest_frame = s->sent_frame = -1;
}

// A record with initialised synchronisation objects and empty queues, or null with an error in the
// log.
VideoStabilizer* new_record() {
    void* const block = std::calloc(1, sizeof(VideoStabilizer));
    if (block == nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, OUT_OF_MEMORY_TEXT);
        return nullptr;
    }
    auto* const s = new (block) VideoStabilizer{};
    pthread_mutex_init(&s->input_mutex, nullptr);
    pthread_mutex_init(&s->output_mutex, nullptr);
    pthread_cond_init(&s->input_cond, nullptr);
    pthread_cond_init(&s->output_cond, nullptr);
    pthread_cond_init(&s->eos_cond, nullptr);
    s->input_capacity = INPUT_CAPACITY;
    s->output_capacity = OUTPUT_CAPACITY;
    s->timeout_ms = TIMEOUT_MS;
    reset_frame_numbers(s);
    fifo_reset(input_fifo(s));
    fifo_reset(output_fifo(s));
    return s;
}

LK_Params tracker_params(int scale) {
    LK_Params params{};
    params.win_radius = 5;
    params.max_level = 4;
    params.max_iterations = 5;
    params.epsilon_x = params.epsilon_y = 0.05F;
    // Largest motion between two frames: 72, 150 or 256 full-resolution pixels.
    const float max_disp = scale == 1 ? 72.0F : (scale == 2 ? 150.0F : 256.0F);
    params.max_disp_x = params.max_disp_y = max_disp / static_cast<float>(scale);
    params.border_x = params.border_y = (scale == 1 ? 32 : 64) / scale;
    return params;
}

// Steps of creation. Each returns false after logging an error, or throws std::bad_alloc.

bool create_analysis(VideoStabilizer* s) {
    s->scale = choose_scale(s->width, s->height);
    const int image_width = s->width / s->scale;
    const int image_height = s->height / s->scale;
    const std::size_t image_bytes =
        static_cast<std::size_t>(image_width) * static_cast<std::size_t>(image_height);
    s->luma_block = static_cast<unsigned char*>(std::malloc(2 * image_bytes));
    if (s->luma_block == nullptr) {
        throw std::bad_alloc();
    }
    s->prev_luma = s->luma_block;
    s->cur_luma = s->luma_block + image_bytes;

    s->max_points = MAX_POINTS;
    s->prev_points.reserve(MAX_POINTS);
    s->next_points.reserve(MAX_POINTS);
    s->track_status.reserve(MAX_POINTS);
    s->matched_prev.reserve(MAX_POINTS);
    s->matched_next.reserve(MAX_POINTS);

    // Cells and borders cover the same area of the full picture at scales 2 and 4.
    const int cell_size = (s->scale == 1 ? 64 : 128) / s->scale;
    const int border = (s->scale == 1 ? 32 : 64) / s->scale;
    if (fast16_init(&s->fast_params, FAST_THRESHOLD, 1, cell_size, 0, border, border, image_width,
                    image_height) != 0) {
        return false;
    }
    s->lk_params = tracker_params(s->scale);
    s->ransac_params = RANSAC_PARAMS;
    return true;
}

SteadyPathSettings steady_path_settings(const VideoStabilizer* s) {
    const VideoStabilizerOptions& options = s->options;
    SteadyPathSettings settings{};
    settings.width = options.picture_width;
    settings.height = options.picture_height;
    settings.look_ahead = options.look_ahead;
    settings.sigma = static_cast<double>(s->filter->sigma);
    settings.crop_ratio = static_cast<double>(options.crop_ratio);
    if (options.auto_crop != 0) {
        settings.crop_least = static_cast<double>(options.crop_least);
        settings.crop_most = static_cast<double>(options.crop_most);
    }
    settings.edge_guard = options.edge_guard != 0;
    settings.repair_motions = options.repair_motions != 0;
    settings.scene_cuts = options.scene_cuts != 0;
    settings.rolling_shutter =
        options.shutter != STABILIZER_SHUTTER_OFF && options.sampling != STABILIZER_SAMPLING_STATED;
    settings.estimates_readout = options.shutter == STABILIZER_SHUTTER_AUTO;
    settings.readout = static_cast<double>(options.readout);
    settings.columns = options.shutter == STABILIZER_SHUTTER_COLUMNS;
    return settings;
}

void create_history(VideoStabilizer* s) {
    s->radius = s->options.look_ahead;
    s->ring_size = 2 * s->radius + 1;
    const auto slots = static_cast<std::size_t>(s->ring_size);
    s->ring_frames.assign(slots, nullptr);
    s->motions.reserve(slots);  // so that push_back cannot throw and leak a matrix
    for (std::size_t i = 0; i < slots; ++i) {
        s->motions.push_back(new_matrix());
        SimpleLA::set_identity(*s->motions.back());
    }
    s->motion_logs.assign(slots, MotionLog{});
    const float sigma = s->options.sigma > 0.0F ? s->options.sigma : -1.0F;  // -1: sqrt(radius)
    s->filter = gaussian_motion_filter_create(s->radius, sigma);
    if (s->filter == nullptr) {
        throw std::bad_alloc();
    }
    const SteadyPathSettings settings = steady_path_settings(s);
    if (!settings.is_plain()) {
        s->steady_path = new SteadyPath(settings);
        if (s->format == PIX_FMT_PICTURE && s->layout.bit_depth > 8) {
            for (std::vector<unsigned char>& plane : s->upper_bits) {
                plane.resize(static_cast<std::size_t>(s->width) *
                             static_cast<std::size_t>(s->height));
            }
        }
        s->camera_motion = new CameraMotion(settings.width, settings.height);
    }
    s->warp_pool.reserve(WARP_POOL_SIZE);
    for (PictureTransform*& transform : s->picture_transforms) {
        transform = new PictureTransform;
    }
    for (int i = 0; i < WARP_POOL_SIZE; ++i) {
        s->warp_pool.push_back(new_matrix());
    }
}

bool has_frame_pool(const VideoStabilizer* s) {
    return s->user != nullptr && s->user->ctx != nullptr && s->user->create_frame != nullptr;
}

// Capacity of the stage's queue, and the shown part that it is to crop to: with whole_shift, the
// worker folds the crop into the transforms.
int stage_capacity(const VideoStabilizer* s) {
    return static_cast<int>(s->warp_pool.size()) - 1;
}
float stage_crop(const VideoStabilizer* s) {
    return s->options.whole_shift != 0 ? 1.0F : s->options.crop_ratio;
}

// All zero, which is no layout, for a format that neither the stage nor create_for_pictures knows.
PixelLayout stream_layout(const VideoStabilizer* s) {
    if (!can_be_warped(s->format)) {
        return s->layout;
    }
    PixelLayout layout{};
    layout.bit_depth = 8;
    layout.semi_planar = s->format == PIX_FMT_YUV420P ? 0 : 1;
    return layout;
}

// Null with an error in the log. Decides for an engine where the options leave that to it.
std::unique_ptr<PictureWarper> make_warper(VideoStabilizer* s, const PixelLayout& layout) {
    const PictureShape shape = picture_shape(s->width, s->height, layout);
    VideoStabilizerOptions& options = s->options;
    if (options.sampling == STABILIZER_SAMPLING_STATED) {
        return std::make_unique<StatedWarper>(shape, options.threads);
    }
    const Resampling resampling =
        options.sampling == STABILIZER_SAMPLING_SHARP ? Resampling::LANCZOS3 : Resampling::BILINEAR;
    if (options.engine != STABILIZER_ENGINE_NATIVE) {
        std::unique_ptr<PictureWarper> warper = OpenclPictureWarper::create(shape, resampling);
        if (warper != nullptr || options.engine == STABILIZER_ENGINE_OPENCL) {
            options.engine = STABILIZER_ENGINE_OPENCL;
            return warper;
        }
        __android_log_print(LOG_WARN, STABILIZER_TAG, "the native engine takes the GPU's place");
        options.engine = STABILIZER_ENGINE_NATIVE;
    }
    return std::make_unique<NativeWarper>(shape, resampling, options.threads);
}

bool create_picture_stage(VideoStabilizer* s) {
    const PixelLayout layout = stream_layout(s);
    if (layout_fault(layout) != nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "Un-supported pixel format!!");
        return false;
    }
    PictureStageSettings settings{};
    settings.width = s->width;
    settings.height = s->height;
    settings.layout = layout;
    settings.crop_ratio = stage_crop(s);
    settings.in_place = s->in_place != 0;
    settings.capacity = stage_capacity(s);
    PictureStageCallbacks callbacks{
        s, stabilizer_on_frame, stabilizer_on_eos, stabilizer_on_failure, nullptr, nullptr};
    if (has_frame_pool(s)) {
        callbacks.ctx = s->user->ctx;
        callbacks.create_frame = s->user->create_frame;
    }
    std::unique_ptr<PictureWarper> warper = make_warper(s, layout);
    if (warper == nullptr) {
        return false;
    }
    s->picture_stage = new PictureStage(settings, callbacks, std::move(warper));
    if (s->picture_stage->start() != RESULT_OK) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "no thread for the warp stage");
        return false;
    }
    return true;
}

bool create_opencl_stage(VideoStabilizer* s) {
    AffineTransformerCallbacks callbacks{};
    callbacks.on_frame = stabilizer_on_frame;
    callbacks.on_eos = stabilizer_on_eos;
    if (has_frame_pool(s)) {
        callbacks.ctx = s->user->ctx;
        callbacks.create_frame = s->user->create_frame;
    }
    s->transformer = affine_transformer_ocl_create(s->in_place, s, callbacks, stage_capacity(s));
    if (s->transformer == nullptr) {
        throw std::bad_alloc();
    }
    set_failure_callback(s->transformer, stabilizer_on_failure);
    if (affine_transformer_ocl_init(s->transformer, s->format, s->width, s->height, s->stride_y,
                                    s->stride_uv, stage_crop(s)) < 0) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "Failed to init AffineTransformer!!");
        return false;
    }
    return true;
}

bool build(VideoStabilizer* s) {
    try {
        if (!create_analysis(s)) {
            return false;
        }
        create_history(s);
        return uses_picture_stage(s->options) ? create_picture_stage(s) : create_opencl_stage(s);
    } catch (const std::bad_alloc&) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, OUT_OF_MEMORY_TEXT);
        return false;
    }
}

void wake_all(VideoStabilizer* s) {
    wake_waiters(s->input_mutex, s->input_cond);
    wake_output_waiters(s);
}

// Releases the frames that the worker took but did not send. The worker must have ended.
void release_ring(VideoStabilizer* s) {
    for (Frame*& frame : s->ring_frames) {
        frame_delete(frame);
        frame = nullptr;
    }
}

// Ends both threads; `quit` is set. The warp stage comes first, because a worker that blocks in
// sending it a frame is unblocked by its end; then the queues are flushed and the worker is joined.
// A second call does nothing.
void end_threads(VideoStabilizer* s) {
    wake_all(s);
    if (s->transformer != nullptr) {
        affine_transformer_ocl_fini(s->transformer);
    }
    if (s->picture_stage != nullptr) {
        s->picture_stage->end();
    }
    video_stabilizer_flush(s);
    if (s->worker_joinable.exchange(0) != 0) {
        pthread_join(s->worker, nullptr);
        release_ring(s);
    }
}

// Reads the options and decides for an engine; auto is left where make_warper is to try OpenCL first.
// pictures: the stream is one of picture frames, which the stated kernels do not know. Returns false
// with an error in the log.
bool choose_options(const VideoStabilizerOptions* given, int width, int height, bool pictures,
                    VideoStabilizerOptions& out) {
    const char* fault = read_options(given, width, height, out);
    if (given == nullptr && pictures) {
        out.engine = STABILIZER_ENGINE_AUTO;
    }
    const bool no_kernels = pictures && out.sampling == STABILIZER_SAMPLING_STATED;
    if (fault == nullptr && no_kernels && out.engine == STABILIZER_ENGINE_OPENCL) {
        fault = "picture frames have the stated sampling with the native engine only";
    }
    if (fault != nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "refused the options: %s", fault);
        return false;
    }
    if (out.engine == STABILIZER_ENGINE_AUTO) {
        if (no_kernels || !opencl_device_is_gpu()) {
            out.engine = STABILIZER_ENGINE_NATIVE;
        } else if (out.sampling == STABILIZER_SAMPLING_STATED) {
            out.engine = STABILIZER_ENGINE_OPENCL;
        }
    }
    return true;
}

// Completes a record whose format is set. Returns it, or deletes it and returns null.
VideoStabilizer* finish_record(VideoStabilizer* s, int width, int height, int in_place,
                               VideoStabilizerUser* user, const VideoStabilizerOptions& options) {
    s->width = width;
    s->height = height;
    s->user = user;
    s->in_place = in_place;
    s->options = options;
    if (!build(s)) {
        video_stabilizer_delete(s);
        return nullptr;
    }
    return s;
}

void delete_matrices(std::vector<SimpleLA::Mat<float>*>& matrices) {
    for (SimpleLA::Mat<float>* matrix : matrices) {
        delete matrix;
    }
    matrices.clear();
}

}  // namespace

int video_stabilizer_module_init() {
    return affine_transformer_ocl_module_init() == 1 ? 0 : -1;
}

int video_stabilizer_module_fini() {
    affine_transformer_ocl_module_fini();
    return 0;
}

VideoStabilizer* video_stabilizer_create(int width, int height, int stride_y, int stride_uv,
                                         PixFmt format, int /*reserved*/, int in_place,
                                         VideoStabilizerUser* user) {
    return video_stabilizer_create_with_options(width, height, stride_y, stride_uv, format,
                                                in_place, user, nullptr);
}

VideoStabilizer* video_stabilizer_create_with_options(int width, int height, int stride_y,
                                                      int stride_uv, PixFmt format, int in_place,
                                                      VideoStabilizerUser* user,
                                                      const VideoStabilizerOptions* options) {
    VideoStabilizerOptions chosen{};
    if (!choose_options(options, width, height, false, chosen)) {
        return nullptr;
    }
    // Formats that cannot be warped are refused by the warp stage.
    const char* const fault =
        geometry_fault(width, height, stride_y, stride_uv, format, uses_picture_stage(chosen));
    if (fault != nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "refused %d x %d, strides %d and %d: %s",
                            width, height, stride_y, stride_uv, fault);
        return nullptr;
    }
    VideoStabilizer* const s = new_record();
    if (s == nullptr) {
        return nullptr;
    }
    s->stride_y = stride_y;
    s->stride_uv = stride_uv;
    s->format = format;
    return finish_record(s, width, height, in_place, user, chosen);
}

VideoStabilizer* video_stabilizer_create_for_pictures(int width, int height,
                                                      const PixelLayout* layout, int in_place,
                                                      VideoStabilizerUser* user,
                                                      const VideoStabilizerOptions* options) {
    VideoStabilizerOptions chosen{};
    if (!choose_options(options, width, height, true, chosen)) {
        return nullptr;
    }
    const char* const fault = picture_geometry_fault(width, height, layout);
    if (fault != nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "refused pictures of %d x %d: %s", width,
                            height, fault);
        return nullptr;
    }
    VideoStabilizer* const s = new_record();
    if (s == nullptr) {
        return nullptr;
    }
    s->format = PIX_FMT_PICTURE;
    s->layout = *layout;
    return finish_record(s, width, height, in_place, user, chosen);
}

void video_stabilizer_set_observer(VideoStabilizer* stabilizer,
                                   const VideoStabilizerObserver* observer) {
    stabilizer->observer = observer != nullptr ? *observer : VideoStabilizerObserver{};
}

int video_stabilizer_start(VideoStabilizer* stabilizer) {
    VideoStabilizer* const s = stabilizer;
    if (s->quit.load() != 0 || s->worker_joinable.load() != 0) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "a stabilizer starts only once");
        return RESULT_NO_THREAD;
    }
    reset_frame_numbers(s);
    s->next_points.clear();
    s->prev_points.clear();
    s->track_status.clear();
    s->quit.store(0);
    s->input_eos.store(0);
    s->output_eos.store(0);
    if (start_thread(&s->worker, stabilizer_thread, s) != 0) {
        return RESULT_NO_THREAD;
    }
    s->worker_joinable.store(1);
    return RESULT_OK;
}

int video_stabilizer_stop(VideoStabilizer* stabilizer) {
    if (stabilizer->quit.exchange(1) != 0) {
        __android_log_print(LOG_WARN, STABILIZER_TAG, "Already quit!");
    }
    end_threads(stabilizer);
    return 0;
}

int video_stabilizer_flush(VideoStabilizer* stabilizer) {
    fifo_flush(input_fifo(stabilizer));
    fifo_flush(output_fifo(stabilizer));
    return 0;
}

void video_stabilizer_delete(VideoStabilizer* stabilizer) {
    VideoStabilizer* const s = stabilizer;
    if (s == nullptr) {
        return;
    }
    s->quit.store(1);
    end_threads(s);
    fast16_fini(&s->fast_params);
    std::free(s->luma_block);
    if (s->filter != nullptr) {
        gaussian_motion_filter_delete(s->filter);
    }
    delete s->next_settings.load();
    delete s->camera_motion;
    delete s->steady_path;
    if (s->transformer != nullptr) {
        affine_transformer_ocl_delete(s->transformer);
    }
    delete s->picture_stage;
    delete_matrices(s->motions);
    delete_matrices(s->warp_pool);
    for (const PictureTransform* const transform : s->picture_transforms) {
        delete transform;
    }
    pthread_cond_destroy(&s->eos_cond);
    pthread_cond_destroy(&s->output_cond);
    pthread_cond_destroy(&s->input_cond);
    pthread_mutex_destroy(&s->output_mutex);
    pthread_mutex_destroy(&s->input_mutex);
    s->~VideoStabilizer();
    std::free(s);
}

}  // namespace videostabilizer
