/*
 * kuv demo: the library's main job in small.
 *
 * It makes the Jaehne test image (concentric rings that get finer towards the
 * edge) at every depth, adds images with kuvAdd (whole, through regions of
 * interest, channel by channel), writes each result as a PGM or PPM picture
 * that any image viewer opens, and ends with one deliberate mistake to show how
 * the library reports a fault.
 *
 *   kuv_demo [output-folder]        (default: demo-out)
 */
#define _POSIX_C_SOURCE 200809L

#include "kuv.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

enum { SIZE = 512 };

static const char* outDir = "demo-out";

/* ------------------------------------------------------------------ timing */

typedef struct {
    struct timespec wall;
    uint64_t cycles;
} Stopwatch;

static Stopwatch startWatch(void)
{
    Stopwatch watch;
    clock_gettime(CLOCK_MONOTONIC, &watch.wall);
    watch.cycles = kuvGetCycleCounter();
    return watch;
}

/* Prints what was timed; the picture written next ends the line. */
static void printTime(const char* what, Stopwatch watch)
{
    uint64_t cycles = kuvGetCycleCounter() - watch.cycles;
    struct timespec now;
    double ms;

    clock_gettime(CLOCK_MONOTONIC, &now);
    ms = (double)(now.tv_sec - watch.wall.tv_sec) * 1e3 +
         (double)(now.tv_nsec - watch.wall.tv_nsec) / 1e6;
    printf("  %-42s %8.3f ms %10" PRIu64 " cycles", what, ms, cycles);
}

/* ---------------------------------------------------------------- pictures */

/* Channel c of pixel (x, y), brought to 0..255 for display. The demo's images
   are all in pixel order. */
static unsigned displayValue(const KuvImage* image, int x, int y, int c)
{
    const char* row = image->imageData + (long)image->widthStep * y;
    int i = x * image->nChannels + c;

    switch (image->depth) {
    case KUV_DEPTH_1U:  return (((const uint8_t*)row)[x / 8] >> (7 - x % 8) & 1) ? 255 : 0;
    case KUV_DEPTH_8U:  return ((const uint8_t*)row)[i];
    case KUV_DEPTH_8S:  return (unsigned)(((const int8_t*)row)[i] + 128);
    case KUV_DEPTH_16U: return ((const uint16_t*)row)[i] >> 8;
    case KUV_DEPTH_16S: return (unsigned)(((const int16_t*)row)[i] + 32768) >> 8;
    case KUV_DEPTH_32S: return (unsigned)(((int64_t)((const int32_t*)row)[i] + 2147483648) >> 24);
    case KUV_DEPTH_32F: {
        float v = ((const float*)row)[i];   /* the test image runs from 0 to 1 */
        return v <= 0.0f ? 0 : v >= 1.0f ? 255 : (unsigned)(v * 255.0f + 0.5f);
    }
    default:            return 0;
    }
}

/* Writes a 1-channel image as PGM, a 3-channel one as PPM, whole (regions of
   interest are ignored). */
static void writePicture(const char* name, const KuvImage* image)
{
    char path[1024];
    FILE* file;
    int x, y, c;

    snprintf(path, sizeof path, "%s/%s.%s", outDir, name, image->nChannels == 3 ? "ppm" : "pgm");
    file = fopen(path, "wb");
    if (file == NULL) {
        printf("\n");
        perror(path);
        return;
    }
    fprintf(file, "P%c\n%d %d\n255\n", image->nChannels == 3 ? '6' : '5',
            (int)image->width, (int)image->height);
    for (y = 0; y < image->height; ++y)
        for (x = 0; x < image->width; ++x)
            for (c = 0; c < image->nChannels; ++c)
                fputc((int)displayValue(image, x, y, c), file);
    fclose(file);
    printf("  -> %s\n", strrchr(path, '/') + 1);
}

/* The thread's status stays until it is overwritten, so one look after a run
   of calls tells whether any of them failed. */
static int statusIsClear(void)
{
    KuvStatus status = kuvGetErrStatus();
    if (status == KUV_StsNoError)
        return 1;
    fprintf(stderr, "kuv_demo: unexpected status %d: %s\n", (int)status, kuvErrorStr(status));
    return 0;
}

static KuvImage* newImage(int nChannels, uint32_t depth, int width, int height)
{
    KuvImage* image = kuvCreateImageHeader(nChannels, 0, depth, nChannels == 3 ? "RGB" : "GRAY",
                                           nChannels == 3 ? "RGB" : "GRAY", KUV_DATA_ORDER_PIXEL,
                                           KUV_ORIGIN_TOP_LEFT, 32, width, height, NULL, NULL, 0,
                                           NULL);
    if (image != NULL)
        kuvAllocateImage(image, 1, 0);   /* filled with 0 */
    return image;
}

/* -------------------------------------------------------------------- main */

static const struct {
    uint32_t depth;
    const char* name;
} depths[] = {
    { KUV_DEPTH_8U, "8u" },   { KUV_DEPTH_1U, "1u" },   { KUV_DEPTH_8S, "8s" },
    { KUV_DEPTH_16U, "16u" }, { KUV_DEPTH_16S, "16s" }, { KUV_DEPTH_32S, "32s" },
    { KUV_DEPTH_32F, "32f" },
};
enum { DEPTHS = sizeof depths / sizeof depths[0] };

static KuvImage* findImage(KuvImage* const images[DEPTHS], uint32_t depth)
{
    int i;
    for (i = 0; i < DEPTHS; ++i)
        if (depths[i].depth == depth)
            return images[i];
    return NULL;
}

int main(int argc, char** argv)
{
    const KuvLibVersion* version = kuvGetLibVersion();
    KuvImage* jaehne[DEPTHS] = { 0 };
    KuvImage *gray, *centre, *framed, *small, *rgb, *rgbSum;
    char label[64], name[64];
    Stopwatch watch;
    KuvStatus status;
    int i;

    if (argc > 1)
        outDir = argv[1];
    if (mkdir(outDir, 0777) != 0 && errno != EEXIST) {
        perror(outDir);
        return 1;
    }
    printf("kuv %s %s; pictures go to %s/\n", version->version, version->internalVersion, outDir);

    /* The default report handler asks whether to end the process. Here a fault
       is printed on stderr and the call returns; the program looks at the
       status. */
    kuvSetErrMode(KUV_ErrorModeParent);
    kuvRedirectError(kuvStdErrReport);

    /* 1. The test image at every depth, and each image added to itself. The
          sums saturate: integer depths clip at their largest value, so the
          bright half of every ring turns flat. 32F does not clip. */
    printf("\n1. Jaehne test image, %dx%d, and kuvAdd(image, image, sum):\n", SIZE, SIZE);
    for (i = 0; i < DEPTHS; ++i) {
        KuvImage* sum;

        snprintf(label, sizeof label, "kuvCreateImageJaehne %s", depths[i].name);
        watch = startWatch();
        jaehne[i] = kuvCreateImageJaehne(depths[i].depth, SIZE, SIZE);
        printTime(label, watch);
        if (jaehne[i] == NULL || !statusIsClear())
            return 1;
        snprintf(name, sizeof name, "jaehne-%s", depths[i].name);
        writePicture(name, jaehne[i]);

        if (depths[i].depth == KUV_DEPTH_1U)   /* the bit image is only shown */
            continue;
        sum = kuvCloneImage(jaehne[i]);
        if (sum == NULL)
            return 1;
        snprintf(label, sizeof label, "kuvAdd %s", depths[i].name);
        watch = startWatch();
        kuvAdd(jaehne[i], jaehne[i], sum);
        printTime(label, watch);
        if (!statusIsClear())
            return 1;
        snprintf(name, sizeof name, "add-self-%s", depths[i].name);
        writePicture(name, sum);
        kuvDeallocate(sum, KUV_IMAGE_ALL);
    }
    gray = findImage(jaehne, KUV_DEPTH_8U);

    /* 2. Regions of interest. The centre of the picture plus its top-left
          quarter goes into the centre of a copy. A second header describes the
          same pixels with its own region: the library never owns the pixels
          that a header points at unless it allocated them (imageDataOrigin). */
    printf("\n2. Regions: centre + top-left quarter, into the centre of a copy:\n");
    centre = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY", KUV_DATA_ORDER_PIXEL,
                                  KUV_ORIGIN_TOP_LEFT, gray->align, SIZE, SIZE,
                                  kuvCreateROI(0, SIZE / 4, SIZE / 4, SIZE / 2, SIZE / 2), NULL,
                                  0, NULL);
    framed = kuvCloneImage(gray);
    if (centre == NULL || framed == NULL)
        return 1;
    centre->imageData = gray->imageData;
    framed->roi = kuvCreateROI(0, SIZE / 4, SIZE / 4, SIZE / 2, SIZE / 2);
    watch = startWatch();
    kuvAdd(centre, gray, framed);   /* gray has no region: it starts at (0, 0) */
    printTime("kuvAdd 8u, 256x256 regions", watch);
    if (!statusIsClear())
        return 1;
    writePicture("add-regions-8u", framed);

    /* 3. Three channels. Each channel is filled by adding into it alone, with a
          channel of interest (coi) on the destination's region:
          red = the image, green = the image added twice (harder rings),
          blue = a smaller test image; sizes may differ, the sum covers what
          the images have in common, here the 256x256 top-left corner. */
    printf("\n3. A 3-channel image, built channel by channel, then added to itself:\n");
    rgb = newImage(3, KUV_DEPTH_8U, SIZE, SIZE);
    small = kuvCreateImageJaehne(KUV_DEPTH_8U, SIZE / 2, SIZE / 2);
    if (rgb == NULL || rgb->imageData == NULL || small == NULL)
        return 1;
    rgb->roi = kuvCreateROI(0, 0, 0, SIZE, SIZE);
    watch = startWatch();
    rgb->roi->coi = 1;                 /* red; rgb is source and result */
    kuvAdd(gray, rgb, rgb);
    rgb->roi->coi = 2;                 /* green */
    kuvAdd(gray, rgb, rgb);
    kuvAdd(gray, rgb, rgb);
    rgb->roi->coi = 3;                 /* blue */
    kuvAdd(small, rgb, rgb);
    printTime("kuvAdd 8u into single channels (4 calls)", watch);
    kuvDeleteROI(rgb->roi);
    rgb->roi = NULL;
    if (!statusIsClear())
        return 1;
    writePicture("rgb-8u", rgb);

    rgbSum = newImage(3, KUV_DEPTH_8U, SIZE, SIZE);
    if (rgbSum == NULL || rgbSum->imageData == NULL)
        return 1;
    watch = startWatch();
    kuvAdd(rgb, rgb, rgbSum);
    printTime("kuvAdd 8u, 3 channels", watch);
    if (!statusIsClear())
        return 1;
    writePicture("rgb-add-self-8u", rgbSum);

    /* 4. More pixelwise operations on the 8-bit test image: the negative,
          a difference, a shift, a comparison into a bit image, and an
          addition that only acts where that bit image (as a mask) is set. */
    printf("\n4. Logic, difference, shift, comparison and a masked addition:\n");
    {
        KuvImage* work = kuvCloneImage(gray);
        KuvImage* bits = newImage(1, KUV_DEPTH_1U, SIZE, SIZE);
        if (work == NULL || bits == NULL || bits->imageData == NULL)
            return 1;

        watch = startWatch();
        kuvNot(gray, work);
        printTime("kuvNot 8u", watch);
        writePicture("not-8u", work);

        watch = startWatch();
        kuvSubtract(gray, work, work);   /* gray - (255 - gray), floored at 0 */
        printTime("kuvSubtract 8u", watch);
        writePicture("subtract-8u", work);

        watch = startWatch();
        kuvRShiftS(gray, work, 2);
        printTime("kuvRShiftS 8u by 2", watch);
        writePicture("rshift-8u", work);

        watch = startWatch();
        kuvLessS(gray, 128, bits);
        printTime("kuvLessS 8u < 128 into 1u", watch);
        writePicture("less-128-1u", bits);

        /* The bit image becomes the destination's mask: where it is set the
           sum is written, elsewhere the destination keeps its value. */
        kuvSet(work, 0);
        work->maskROI = bits;
        watch = startWatch();
        kuvAdd(gray, gray, work);
        printTime("kuvAdd 8u under a 1u mask", watch);
        work->maskROI = NULL;
        if (!statusIsClear())
            return 1;
        writePicture("add-masked-8u", work);

        kuvDeallocate(bits, KUV_IMAGE_ALL);
        kuvDeallocate(work, KUV_IMAGE_ALL);
    }

    /* 5. A deliberate mistake: an 8U and a 16U image cannot be added. The
          handler installed above prints the report on stderr, the call
          returns, and the status says what went wrong. */
    printf("\n5. A deliberate mistake: kuvAdd(8u image, 16u image, 8u image).\n"
           "   kuvStdErrReport prints (ErrMode KUV_ErrorModeParent, so the call returns):\n");
    fflush(stdout);
    kuvAdd(gray, findImage(jaehne, KUV_DEPTH_16U), framed);
    status = kuvGetErrStatus();
    printf("   status after the call: %d, kuvErrorStr: \"%s\"\n", (int)status, kuvErrorStr(status));
    kuvSetErrStatus(KUV_StsNoError);   /* a later success would not clear it */

    kuvDeallocate(rgbSum, KUV_IMAGE_ALL);
    kuvDeallocate(rgb, KUV_IMAGE_ALL);
    kuvDeallocate(small, KUV_IMAGE_ALL);
    kuvDeallocate(framed, KUV_IMAGE_ALL);
    kuvDeallocate(centre, KUV_IMAGE_ALL);   /* frees header and region; the pixels are gray's */
    for (i = 0; i < DEPTHS; ++i)
        kuvDeallocate(jaehne[i], KUV_IMAGE_ALL);
    return status == KUV_StsBadArgument ? 0 : 1;
}
