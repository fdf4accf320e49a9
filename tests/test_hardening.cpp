// Hostile files at the entry points: size bombs, a link planted where the RAW
// staging file might go, warnings that must not reach stderr. FIFOs and
// outputs that are their own inputs are among test_faults' cases.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "dng_writer.h"
#include "pipeline/pipeline.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// The JPEG with its frame header's size replaced: the few bytes an attacker
// needs to claim a huge picture.
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

std::vector<uint8_t> cut(const std::vector<uint8_t> &bytes, int tenths)
{
    return {bytes.begin(), bytes.begin() + long(bytes.size() * size_t(tenths) / 10)};
}

struct Hardening : ::testing::Test {
    static inline const TempDir dir;
    static inline const std::string jpeg = dir.path("photo.jpg"), dng = dir.path("photo.dng");
    static void SetUpTestSuite() { ASSERT_TRUE(write_jpeg(jpeg, make_picture(64, 48, 3)) && write_dng(dng, {})); }
    TempDir tmp;
    const std::string out = tmp.path("out.jpg");
};

TEST_F(Hardening, SizeBombsAreRefusedAndTruncatedPhotosStillWork)
{
    const std::vector<uint8_t> small = encode_jpeg(make_picture(16, 16, 1));
    const std::vector<uint8_t> progressive = encode_jpeg(make_picture(16, 16, 3), {.progressive = true});
    const struct {
        const char *name;
        std::vector<uint8_t> bytes;
        int32_t thumb, transform;
    } cases[] = {
        {"baseline claiming 65500 x 65500", claiming(small, 65500, 65500), 9, -3},
        {"progressive claiming 16708 x 16964", claiming(progressive, 16708, 16964), 9, -3},
        {"photo cut at 60%", cut(encode_jpeg(make_picture(512, 384, 3)), 6), 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string bomb = tmp.path("bomb.jpg");
        ASSERT_TRUE(write_file(bomb, c.bytes));
        EXPECT_EQ(easy_image_create_thumb(bomb.c_str(), out.c_str(), 128, 128, 85, 0), c.thumb);
        EXPECT_EQ(image_jpeg_transform(bomb.c_str(), out.c_str(), IMAGE_XFORM_ROT_90, nullptr, 85), c.transform);
    }
    // A strip 65500 high fitted to a width of 1000 would be 65.5 million
    // rows; the planner refuses it, and a sane request beside it stands.
    const image_scale_params wide{IMAGE_SCALE_FIT_WIDTH, 1000, 100, 10.0, 85, 0, 0};
    EXPECT_FALSE(image_scale_plan_for_size(1, 65500, &wide, 0, IMAGE_XFORM_NONE).valid);
    EXPECT_TRUE(image_scale_plan_for_size(100, 6550, &wide, 0, IMAGE_XFORM_NONE).valid);
    const image_scale_params huge_pad{IMAGE_SCALE_FIT_BOX_PAD, 60000, 60000, 10.0, 85, 0, 0};
    EXPECT_FALSE(image_scale_plan_for_size(100, 100, &huge_pad, 0, IMAGE_XFORM_NONE).valid);
}

TEST_F(Hardening, RawStagingNeverFollowsALinkAndLeavesNothing)
{
    const auto staged = [] {
        std::set<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator("/tmp"))
            if (e.path().filename().string().starts_with("preview."))
                names.insert(e.path());
        return names;
    };
    // The staging name of old, planted as a link to a file of "another user":
    // it must not be written through, whatever name is used now.
    const std::string victim = tmp.path("victim"), planted = "/tmp/preview." + std::to_string(unsigned(getpid()));
    ASSERT_TRUE(write_file(victim, {'k', 'e', 'e', 'p'}));
    unlink(planted.c_str());
    ASSERT_EQ(symlink(victim.c_str(), planted.c_str()), 0);
    const std::set<std::string> before = staged();
    EXPECT_EQ(easy_image_create_thumb(dng.c_str(), out.c_str(), 48, 32, 85, 0), 0);
    EXPECT_EQ(read_jpeg(out).width, 48);
    EXPECT_EQ(read_file(victim), (std::vector<uint8_t>{'k', 'e', 'e', 'p'}));
    // Other processes (the thread suite, say) stage their own files for a
    // moment; one of ours would stay for good. So wait for the strangers.
    const auto left_over = [&] {
        std::set<std::string> extra;
        for (const std::string &name : staged())
            if (!before.count(name))
                extra.insert(name);
        return extra;
    };
    for (int i = 0; i < 100 && !left_over().empty(); ++i)
        usleep(50000);
    EXPECT_EQ(left_over(), std::set<std::string>{});
    unlink(planted.c_str());
}

TEST_F(Hardening, DamagedFilesPrintNothing)
{
    const std::string cut_jpeg = tmp.path("cut.jpg"), cut_dng = tmp.path("cut.dng"), err = tmp.path("stderr");
    ASSERT_TRUE(write_file(cut_jpeg, cut(read_file(jpeg), 7)) && write_file(cut_dng, cut(read_file(dng), 7)));
    fflush(stderr);
    const int saved = dup(2), fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    dup2(fd, 2);
    easy_image_create_thumb(cut_jpeg.c_str(), out.c_str(), 32, 32, 85, 0);
    image_jpeg_transform(cut_jpeg.c_str(), out.c_str(), IMAGE_XFORM_ROT_90, nullptr, 85);
    image_raw_to_preview_jpeg(cut_dng.c_str(), out.c_str(), 1, 0, 85);
    fflush(stderr);
    dup2(saved, 2);
    close(fd), close(saved);
    EXPECT_EQ(read_file(err).size(), 0u);
}

}  // namespace
