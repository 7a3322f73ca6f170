/* Records H.264 video and ADTS audio into one file, each frame in the order of its time.
 *
 *   record camera.h264 microphone.aac take1.mp4
 *
 * The pictures come at 25 a second, the audio frames hold 1024 samples each at 48 kHz. */
#include "annex_b.h"

#include <kv_mp4.h>

#include <string.h>

enum { kFrameRate = 25, kSampleRate = 48000, kSamplesPerFrame = 1024 };

/* The next ADTS frame, whose header tells its length in 13 bits; its size, or 0 at the end. */
static uint32_t next_audio(stream *s, const uint8_t **frame)
{
    if (s->next + 7 > s->size)
        return 0;
    const uint8_t *header = s->data + s->next;
    const uint32_t size = (header[3] & 3u) << 11 | (uint32_t)header[4] << 3 | header[5] >> 5;
    if (size < 7 || size > s->size - s->next)
        return 0;
    *frame = header;
    s->next += size;
    return size;
}

static uint32_t record(mp4_handle file, stream *camera, stream *microphone)
{
    mp4_video_track_info video;
    memset(&video, 0, sizeof video);
    video.timescale = kFrameRate;
    video.sample_duration = 1;
    video.codec = MP4_VIDEO_H264; /* the parameter sets are taken from the first picture */
    video.width = 320;
    video.height = 240;
    mp4_audio_track_info audio;
    memset(&audio, 0, sizeof audio);
    audio.timescale = kSampleRate;
    audio.sample_duration = kSamplesPerFrame;
    audio.codec = MP4_AUDIO_AAC_ADTS;

    uint32_t status = mp4_set_video_track(file, &video);
    if (status == MP4_OK)
        status = mp4_set_audio_track(file, &audio);
    if (status == MP4_OK)
        status = mp4_set_metadata(file, "title", "Take 1");

    const uint8_t *picture = NULL;
    const uint8_t *sound = NULL;
    uint32_t picture_size = next_picture(camera, &picture);
    uint32_t sound_size = next_audio(microphone, &sound);
    uint64_t pictures = 0;
    uint64_t sounds = 0;
    while (status == MP4_OK && (picture_size || sound_size)) {
        /* Both times in ticks of 1 / (25 * 48000) s. */
        const int picture_first =
            pictures * kSampleRate <= sounds * kSamplesPerFrame * kFrameRate;
        if (picture_size && (picture_first || !sound_size)) {
            status = mp4_write_video_frame(file, picture, picture_size, pictures++);
            picture_size = next_picture(camera, &picture);
        } else {
            status = mp4_write_audio_frame(file, sound, sound_size,
                                           sounds++ * kSamplesPerFrame);
            sound_size = next_audio(microphone, &sound);
        }
    }
    return status;
}

int main(int argc, char **argv)
{
    stream camera;
    stream microphone;
    if (argc != 4 || !read_stream(argv[1], &camera) || !read_stream(argv[2], &microphone)) {
        fputs("usage: record VIDEO AUDIO OUTPUT\n", stderr);
        return 2;
    }
    mp4_handle file;
    uint32_t status = mp4_create_file_ex(argv[3], 0, &file);
    if (status == MP4_OK) {
        status = record(file, &camera, &microphone);
        /* The close writes the index: without it there is no file to play. */
        const uint32_t closed = mp4_close_file(file);
        if (status == MP4_OK)
            status = closed;
    }
    if (status != MP4_OK)
        fprintf(stderr, "record: status %u\n", (unsigned)status);
    free(camera.data);
    free(microphone.data);
    return status != MP4_OK;
}
