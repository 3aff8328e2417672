// Life cycle of the stabilizer: module set-up, creation from the stream geometry, start, stop,
// delete.

#include <algorithm>
#include <cstdlib>
#include <new>

#include "motion/steady_path.h"
#include "pipeline/geometry.h"
#include "pipeline/stabilizer_internal.h"
#include "pipeline/stabilizer_options.h"
#include "platform/log.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

constexpr int INPUT_CAPACITY = 3;   // frames
constexpr int OUTPUT_CAPACITY = 2;  // frames
constexpr int TIMEOUT_MS = 3000;
constexpr int MAX_POINTS = 256;
constexpr int WARP_POOL_SIZE = 2;  // one frame queued in the warp stage and one in its work

constexpr int FAST_THRESHOLD = 25;  // grey levels

// Half the samples may be outliers; with six pairs a sample, 293 draws hit a clean one with 99 %:
// ceil(log(1 - 0.99) / log(1 - (1 - 0.5)^6)).
constexpr RansacParams RANSAC_PARAMS = {6, 2.0F, 0.5F, 0.99F, 293};

// The analysis image is the picture decimated until its short side is below 500 or it is not
// clearly wider than high; at most twice.
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

// A record with its synchronisation objects and empty queues, or null.
VideoStabilizer* new_record() {
    void* const block = std::calloc(1, sizeof(VideoStabilizer));
    if (block == nullptr) {
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
    // Largest motion between two frames: 72, 150 or 256 pixels of the full picture.
    const float max_disp = scale == 1 ? 72.0F : (scale == 2 ? 150.0F : 256.0F);
    params.max_disp_x = params.max_disp_y = max_disp / static_cast<float>(scale);
    params.border_x = params.border_y = (scale == 1 ? 32 : 64) / scale;
    return params;
}

// Steps of creation; each returns false when it failed and has said so in the log. Vectors and
// matrices report exhausted memory by std::bad_alloc.

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

    // Cells and borders cover the same part of the full picture at scales 2 and 4.
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

void create_history(VideoStabilizer* s) {
    s->radius = s->options.look_ahead;
    s->ring_size = 2 * s->radius + 1;
    s->frame_index = s->output_index = -1;
    const auto slots = static_cast<std::size_t>(s->ring_size);
    s->ring_frames.assign(slots, nullptr);
    s->motions.reserve(slots);  // so that no push_back can fail with a matrix in hand
    for (std::size_t i = 0; i < slots; ++i) {
        s->motions.push_back(new_matrix());
        SimpleLA::set_identity(*s->motions.back());
    }
    s->motion_logs.assign(slots, MotionLog{});
    s->filter = gaussian_motion_filter_create(s->radius, s->options.sigma);
    if (s->filter == nullptr) {
        throw std::bad_alloc();
    }
    if (SteadyPath::is_needed(s->options)) {
        s->steady_path =
            new SteadyPath(s->options, static_cast<double>(s->filter->sigma), s->scale);
    }
    s->warp_pool.reserve(WARP_POOL_SIZE);
    for (int i = 0; i < WARP_POOL_SIZE; ++i) {
        s->warp_pool.push_back(new_matrix());
    }
}

bool create_warp_stage(VideoStabilizer* s) {
    AffineTransformerCallbacks callbacks{};
    callbacks.on_frame = stabilizer_on_frame;
    callbacks.on_eos = stabilizer_on_eos;
    if (s->user != nullptr && s->user->ctx != nullptr && s->user->create_frame != nullptr) {
        callbacks.ctx = s->user->ctx;
        callbacks.create_frame = s->user->create_frame;
    }
    const int capacity = static_cast<int>(s->warp_pool.size()) - 1;
    s->transformer = affine_transformer_ocl_create(s->in_place, s, callbacks, capacity);
    if (s->transformer == nullptr) {
        throw std::bad_alloc();
    }
    s->transformer->on_failure = stabilizer_on_failure;
    // With the whole shift, the matrices that the stage gets have the crop in them already.
    const float stage_crop = s->options.whole_shift != 0 ? 1.0F : s->options.crop_ratio;
    if (affine_transformer_ocl_init(s->transformer, s->format, s->width, s->height, s->stride_y,
                                    s->stride_uv, stage_crop) < 0) {
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
        return create_warp_stage(s);
    } catch (const std::bad_alloc&) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, OUT_OF_MEMORY_TEXT);
        return false;
    }
}

void wake_all(VideoStabilizer* s) {
    wake_waiters(s->input_mutex, s->input_cond);
    wake_waiters(s->output_mutex, s->output_cond);
    pthread_cond_broadcast(&s->eos_cond);
}

// Releases the frames that the worker took but did not send. Only after the worker has ended.
void release_ring(VideoStabilizer* s) {
    for (Frame*& frame : s->ring_frames) {
        frame_delete(frame);
        frame = nullptr;
    }
}

// Ends both threads with `quit` set, in the order in which they wait for each other: the warp stage
// first, which also lets go of a worker that is blocked in handing it a frame; then the input queue
// is emptied and the worker joined. May be called again; then it finds nothing left to do.
void end_threads(VideoStabilizer* s) {
    wake_all(s);
    if (s->transformer != nullptr) {
        affine_transformer_ocl_fini(s->transformer);
    }
    video_stabilizer_flush(s);
    if (s->worker_joinable.exchange(0) != 0) {
        pthread_join(s->worker, nullptr);
        release_ring(s);
    }
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
    // Formats that cannot be warped are the warp stage's to refuse.
    const char* const fault = geometry_fault(width, height, stride_y, stride_uv, format);
    if (fault != nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "refused %d x %d, strides %d and %d: %s",
                            width, height, stride_y, stride_uv, fault);
        return nullptr;
    }
    VideoStabilizerOptions chosen{};
    const char* const option_fault = read_options(options, width, height, chosen);
    if (option_fault != nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "refused the options: %s", option_fault);
        return nullptr;
    }
    VideoStabilizer* const s = new_record();
    if (s == nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, OUT_OF_MEMORY_TEXT);
        return nullptr;
    }
    s->width = width;
    s->height = height;
    s->stride_y = stride_y;
    s->stride_uv = stride_uv;
    s->format = format;
    s->user = user;
    s->in_place = in_place;
    s->options = chosen;
    if (!build(s)) {
        video_stabilizer_delete(s);
        return nullptr;
    }
    return s;
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
    s->frame_index = s->output_index = -1;
    s->next_points.clear();
    s->prev_points.clear();
    s->track_status.clear();
    s->quit.store(0);
    s->input_eos.store(0);
    s->output_eos.store(0);
    if (pthread_create(&s->worker, nullptr, stabilizer_thread, s) != 0) {
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
    delete s->steady_path;
    if (s->transformer != nullptr) {
        affine_transformer_ocl_delete(s->transformer);
    }
    delete_matrices(s->motions);
    delete_matrices(s->warp_pool);
    pthread_cond_destroy(&s->eos_cond);
    pthread_cond_destroy(&s->output_cond);
    pthread_cond_destroy(&s->input_cond);
    pthread_mutex_destroy(&s->output_mutex);
    pthread_mutex_destroy(&s->input_mutex);
    s->~VideoStabilizer();
    std::free(s);
}

}  // namespace videostabilizer
