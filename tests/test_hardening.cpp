// Hostile files at the entry points: size bombs, outputs that are their own
// inputs, FIFOs, a link planted where the RAW staging file might go, and
// warnings that must not reach stderr.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "dng_writer.h"
#include "pipeline/pipeline.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// The JPEG with its frame header's size replaced: the few bytes an
// attacker needs to claim a huge picture.
std::vector<uint8_t> claiming(std::vector<uint8_t> jpeg, int width, int height)
{
    for (size_t i = 2; i + 8 < jpeg.size(); ++i)
        if (jpeg[i] == 0xFF && (jpeg[i + 1] == 0xC0 || jpeg[i + 1] == 0xC2)) {
            jpeg[i + 5] = uint8_t(height >> 8), jpeg[i + 6] = uint8_t(height);
            jpeg[i + 7] = uint8_t(width >> 8), jpeg[i + 8] = uint8_t(width);
            break;
        }
    return jpeg;
}

std::set<std::string> staged_files()
{
    std::set<std::string> names;
    if (DIR *d = opendir("/tmp")) {
        while (dirent *e = readdir(d))
            if (std::string(e->d_name).rfind("preview.", 0) == 0)
                names.insert(e->d_name);
        closedir(d);
    }
    return names;
}

struct Fixture : ::testing::Test {
    TempDir dir;
    std::string jpeg = dir.path("photo.jpg"), dng = dir.path("photo.dng");
    void SetUp() override
    {
        ASSERT_TRUE(write_jpeg(jpeg, make_picture(64, 48, 3)));
        ASSERT_TRUE(write_dng(dng, {}));
    }
};

TEST_F(Fixture, SizeBombsAreRefusedAndTruncatedPhotosStillWork)
{
    const std::vector<uint8_t> small = encode_jpeg(make_picture(16, 16, 1));
    const std::vector<uint8_t> progressive = encode_jpeg(make_picture(16, 16, 3), {.progressive = true});
    const std::vector<uint8_t> photo = encode_jpeg(make_picture(512, 384, 3));
    const std::vector<uint8_t> cut(photo.begin(), photo.begin() + long(photo.size() * 6 / 10));
    const struct {
        const char *name;
        std::vector<uint8_t> bytes;
        int32_t thumb, transform;
    } cases[] = {
        {"baseline claiming 65500 x 65500", claiming(small, 65500, 65500), 9, -3},
        {"progressive claiming 16708 x 16964", claiming(progressive, 16708, 16964), 9, -3},
        {"photo cut at 60%", cut, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string in = dir.path("bomb.jpg"), out = dir.path("out.jpg");
        ASSERT_TRUE(write_file(in, c.bytes));
        EXPECT_EQ(easy_image_create_thumb(in.c_str(), out.c_str(), 128, 128, 85, 0), c.thumb);
        EXPECT_EQ(image_jpeg_transform(in.c_str(), out.c_str(), IMAGE_XFORM_ROT_90, nullptr, 85),
                  c.transform);
    }
    // A strip 65500 high fitted to a width of 1000 would be 65.5 million
    // rows; the planner refuses it, and a sane request beside it stands.
    const image_scale_params wide{IMAGE_SCALE_FIT_WIDTH, 1000, 100, 10.0, 85, 0, 0};
    EXPECT_FALSE(image_scale_plan_for_size(1, 65500, &wide, 0, IMAGE_XFORM_NONE).valid);
    EXPECT_TRUE(image_scale_plan_for_size(100, 6550, &wide, 0, IMAGE_XFORM_NONE).valid);
    const image_scale_params huge_pad{IMAGE_SCALE_FIT_BOX_PAD, 60000, 60000, 10.0, 85, 0, 0};
    EXPECT_FALSE(image_scale_plan_for_size(100, 100, &huge_pad, 0, IMAGE_XFORM_NONE).valid);
}

TEST_F(Fixture, AnOutputThatIsItsInputIsRefusedUntouched)
{
    const std::vector<uint8_t> jpeg_bytes = read_file(jpeg), dng_bytes = read_file(dng);
    const std::string soft = dir.path("soft.jpg"), hard = dir.path("hard.jpg");
    const std::string soft_dng = dir.path("soft.dng");
    ASSERT_EQ(symlink(jpeg.c_str(), soft.c_str()), 0);
    ASSERT_EQ(link(jpeg.c_str(), hard.c_str()), 0);
    ASSERT_EQ(symlink(dng.c_str(), soft_dng.c_str()), 0);
    for (const std::string &out : {jpeg, soft, hard}) {
        SCOPED_TRACE(out);
        EXPECT_EQ(image_jpeg_transform(jpeg.c_str(), out.c_str(), IMAGE_XFORM_ROT_90, nullptr, 85), -2);
        EXPECT_EQ(easy_image_create_thumb(jpeg.c_str(), out.c_str(), 32, 32, 85, 0), 9);
    }
    EXPECT_EQ(image_raw_to_preview_jpeg(dng.c_str(), soft_dng.c_str(), 1, 0, 85), -2);
    EXPECT_EQ(easy_image_create_thumb(dng.c_str(), soft_dng.c_str(), 32, 32, 85, 0), 9);
    EXPECT_EQ(read_file(jpeg), jpeg_bytes);
    EXPECT_EQ(read_file(dng), dng_bytes);
}

TEST_F(Fixture, FifosAreRefusedWithoutBlocking)
{
    const std::string fifo_jpeg = dir.path("fifo.jpg"), fifo_dng = dir.path("fifo.dng");
    const std::string out = dir.path("out.jpg");
    ASSERT_EQ(mkfifo(fifo_jpeg.c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(fifo_dng.c_str(), 0600), 0);
    EXPECT_EQ(easy_image_create_thumb(fifo_jpeg.c_str(), out.c_str(), 32, 32, 85, 0), 2);
    EXPECT_EQ(easy_image_create_thumb(fifo_dng.c_str(), out.c_str(), 32, 32, 85, 0), 9);
    EXPECT_EQ(image_jpeg_transform(fifo_jpeg.c_str(), out.c_str(), IMAGE_XFORM_NONE, nullptr, 85), -1);
    EXPECT_EQ(image_raw_to_preview_jpeg(fifo_dng.c_str(), out.c_str(), 0, 0, 85), -1);
    image_metadata meta;
    EXPECT_EQ(image_get_metadata(nullptr, fifo_jpeg.c_str(), IMAGE_MEDIA_JPEG, &meta), 9);
    EXPECT_EQ(image_get_metadata(nullptr, fifo_dng.c_str(), IMAGE_MEDIA_RAW, &meta), 9);
    // A FIFO as output has no reader: refused, not waited on.
    EXPECT_EQ(image_jpeg_transform(jpeg.c_str(), fifo_jpeg.c_str(), IMAGE_XFORM_NONE, nullptr, 85), -2);
}

TEST_F(Fixture, RawStagingNeverFollowsALinkAndLeavesNothing)
{
    // The staging name of old, planted as a link to a file of "another
    // user": it must not be written through, whatever name is used now.
    const std::string victim = dir.path("victim"), planted =
        "/tmp/preview." + std::to_string(unsigned(getpid()));
    ASSERT_TRUE(write_file(victim, {'k', 'e', 'e', 'p'}));
    ::unlink(planted.c_str());
    ASSERT_EQ(symlink(victim.c_str(), planted.c_str()), 0);
    std::set<std::string> before = staged_files();
    const std::string out = dir.path("thumb.jpg");
    EXPECT_EQ(easy_image_create_thumb(dng.c_str(), out.c_str(), 48, 32, 85, 0), 0);
    EXPECT_EQ(read_jpeg(out).width, 48);
    EXPECT_EQ(read_file(victim), (std::vector<uint8_t>{'k', 'e', 'e', 'p'}));
    EXPECT_EQ(staged_files(), before);
    ::unlink(planted.c_str());
}

TEST_F(Fixture, DamagedFilesPrintNothing)
{
    const std::vector<uint8_t> photo = read_file(jpeg);
    const std::vector<uint8_t> dng_bytes = read_file(dng);
    const std::string cut = dir.path("cut.jpg"), cut_dng = dir.path("cut.dng");
    ASSERT_TRUE(write_file(cut, {photo.begin(), photo.begin() + long(photo.size() * 7 / 10)}));
    ASSERT_TRUE(write_file(cut_dng, {dng_bytes.begin(), dng_bytes.begin() + long(dng_bytes.size() * 7 / 10)}));
    const std::string err = dir.path("stderr"), out = dir.path("out.jpg");
    fflush(stderr);
    const int saved = dup(2);
    const int fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    dup2(fd, 2);
    easy_image_create_thumb(cut.c_str(), out.c_str(), 32, 32, 85, 0);
    image_jpeg_transform(cut.c_str(), out.c_str(), IMAGE_XFORM_ROT_90, nullptr, 85);
    image_raw_to_preview_jpeg(cut_dng.c_str(), out.c_str(), 1, 0, 85);
    fflush(stderr);
    dup2(saved, 2);
    close(fd);
    close(saved);
    EXPECT_EQ(read_file(err).size(), 0u);
}

}  // namespace
