/* What stands for a camera in these examples: a file of H.264 in Annex B form, whose pictures begin
 * with an access unit delimiter each. FFmpeg makes one with
 * `-c:v libx264 -bf 0 -x264-params aud=1 camera.h264`. */
#ifndef EXAMPLES_ANNEX_B_H
#define EXAMPLES_ANNEX_B_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

typedef struct stream {
    uint8_t *data; /* the whole file; the caller frees it */
    size_t size;
    size_t next; /* where the next frame begins */
} stream;

/* 0 if the file cannot be read. */
static inline int read_stream(const char *path, stream *s)
{
    FILE *file = fopen(path, "rb");
    if (file == NULL)
        return 0;
    fseek(file, 0, SEEK_END);
    const long size = ftell(file);
    rewind(file);
    s->next = 0;
    s->size = size > 0 ? (size_t)size : 0;
    s->data = malloc(s->size + 1);
    const int whole = s->data != NULL && fread(s->data, 1, s->size, file) == s->size;
    fclose(file);
    return whole;
}

/* The next picture with all that belongs to it; its size, or 0 at the end. */
static inline uint32_t next_picture(stream *s, const uint8_t **picture)
{
    const size_t begin = s->next;
    size_t end = begin + 4; /* behind its own start code */
    while (end + 4 <= s->size && !(s->data[end] == 0 && s->data[end + 1] == 0 &&
                                   s->data[end + 2] == 1 && (s->data[end + 3] & 0x1F) == 9))
        end++;
    if (end + 4 > s->size)
        end = s->size;
    else if (s->data[end - 1] == 0)
        end--; /* the first zero of a start code of four bytes */
    s->next = end;
    *picture = s->data + begin;
    return (uint32_t)(end - begin);
}

#endif /* EXAMPLES_ANNEX_B_H */
