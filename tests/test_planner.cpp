// The scale planner on worked requests: sizes, DCT scale, resampler, ratio
// and crop, plus the requests it refuses.
#include <gtest/gtest.h>

#include "pipeline/pipeline.h"

namespace {

enum Kind { NONE, BOX, BICUBIC };

struct Case {
    const char *what;
    int32_t sw, sh;
    uint32_t mode;
    int32_t bw, bh;
    uint32_t xform;
    int no_stream;
    int32_t tw, th;
    uint32_t denom;
    Kind kind;
    double ratio;
    int32_t crop_x, crop_y;
};

Kind kind_of(image_resample_fn fn)
{
    if (!fn)
        return NONE;
    return fn == image_resample_box ? BOX : BICUBIC;
}

image_scale_params request(uint32_t mode, int32_t w, int32_t h, double max_aspect = 10.0)
{
    return image_scale_params{mode, w, h, max_aspect, 85, 0, 0};
}

const Case kCases[] = {
    {"thumbnail of a 4000x3000 photo", 4000, 3000, 5, 128, 128, 0, 0, 128, 96, 8, BOX, 500.0 / 128, 0, 0},
    {"same photo stored portrait", 3000, 4000, 5, 128, 128, 0, 0, 96, 128, 8, BOX, 500.0 / 128, 0, 0},
    {"panorama cut to max_aspect", 6000, 400, 5, 128, 128, 0, 0, 128, 13, 8, BOX, 50.0 / 13, 129, 0},
    {"tall panorama cut to max_aspect", 400, 6000, 4, 128, 128, 0, 0, 13, 128, 8, BOX, 50.0 / 13, 0, 129},
    {"exactly max_aspect is not cut", 1000, 100, 5, 128, 128, 0, 0, 128, 13, 2, BOX, 500.0 / 128, 0, 0},
    {"square source, square box: height", 1000, 1000, 4, 100, 100, 0, 0, 100, 100, 4, BOX, 2.5, 0, 0},
    {"fill centre on an exact half", 1000, 600, 6, 300, 300, 0, 0, 300, 300, 2, NONE, 1.0, 100, 0},
    {"fill corner keeps the corner", 1000, 600, 2, 300, 300, 0, 0, 300, 300, 2, NONE, 1.0, 0, 0},
    {"fill corner with pad, same plan", 1000, 600, 3, 300, 300, 0, 0, 300, 300, 2, NONE, 1.0, 0, 0},
    {"fill centre, portrait box", 1000, 600, 6, 100, 300, 0, 0, 100, 300, 2, NONE, 1.0, 200, 0},
    {"fill centre, wide box crops rows", 600, 1000, 6, 300, 100, 0, 0, 300, 100, 2, NONE, 1.0, 0, 200},
    {"reduction of 2.5 at full scale", 1600, 1200, 4, 640, 480, 0, 0, 640, 480, 1, BOX, 2.5, 0, 0},
    {"exact half needs no resampler", 1600, 1200, 5, 800, 600, 0, 0, 800, 600, 2, NONE, 1.0, 0, 0},
    {"enlargement runs bicubic", 100, 50, 5, 200, 200, 0, 0, 200, 100, 1, BICUBIC, 0.5, 0, 0},
    {"box swapped for a quarter turn", 4000, 3000, 5, 128, 256, 5, 0, 171, 128, 8, BOX, 375.0 / 128, 0, 0},
    {"no stream: exact half still resamples", 1000, 600, 5, 500, 300, 0, 1, 500, 300, 1, BOX, 2.0, 0, 0},
    {"no stream: equal sizes run bicubic", 640, 480, 4, 640, 480, 0, 1, 640, 480, 1, BICUBIC, 1.0, 0, 0},
    {"fit width", 4000, 3000, 0, 200, 999, 0, 0, 200, 150, 8, BOX, 2.5, 0, 0},
    {"fit width under a quarter turn takes the height", 4000, 3000, 0, 999, 200, 5, 0, 200, 150, 8, BOX, 2.5, 0, 0},
    {"fit height", 4000, 3000, 1, 999, 300, 0, 0, 400, 300, 4, BOX, 2.5, 0, 0},
    {"five times takes the next DCT step", 5, 5, 4, 1, 1, 0, 0, 1, 1, 2, BOX, 2.0, 0, 0},
    {"nine times", 9, 9, 4, 1, 1, 0, 0, 1, 1, 4, BOX, 2.0, 0, 0},
    {"seventeen times", 17, 17, 4, 1, 1, 0, 0, 1, 1, 8, BOX, 2.0, 0, 0},
    {"just under twice is bicubic", 199, 199, 4, 100, 100, 0, 0, 100, 100, 1, BICUBIC, 1.99, 0, 0},
    {"aspect tie in fill corner chooses width", 800, 600, 2, 400, 300, 0, 0, 400, 300, 2, NONE, 1.0, 0, 0},
    {"aspect tie in fill centre chooses height", 800, 600, 6, 400, 300, 0, 0, 400, 300, 2, NONE, 1.0, 0, 0},
};

class PlannerCases : public ::testing::TestWithParam<Case> {};

TEST_P(PlannerCases, MatchesWorkedPlan)
{
    const Case &c = GetParam();
    const image_scale_params p = request(c.mode, c.bw, c.bh);
    const image_scale_plan plan = image_scale_plan_for_size(c.sw, c.sh, &p, c.no_stream, c.xform);
    ASSERT_TRUE(plan.valid);
    EXPECT_EQ(plan.width, c.tw);
    EXPECT_EQ(plan.height, c.th);
    EXPECT_EQ(plan.scale_num, 1u);
    EXPECT_EQ(plan.scale_denom, c.denom);
    EXPECT_EQ(kind_of(plan.resampler), c.kind);
    EXPECT_DOUBLE_EQ(plan.ratio, c.ratio);
    EXPECT_EQ(plan.crop_x, c.crop_x);
    EXPECT_EQ(plan.crop_y, c.crop_y);
}

INSTANTIATE_TEST_SUITE_P(Worked, PlannerCases, ::testing::ValuesIn(kCases),
                         [](const auto &param_info) { return "case" + std::to_string(param_info.index); });

// Every plan the DCT chooser makes keeps each filter in its range: the box
// never under 2, the bicubic never at 2 or more, and a null resampler only
// for exact scales.
TEST(PlannerChooser, FiltersStayInTheirRanges)
{
    for (int32_t target = 1; target <= 40; ++target)
        for (int32_t source = 1; source <= 800; ++source) {
            image_scale_plan plan{};
            image_plan_ratio_dct(source, target, &plan);
            if (plan.resampler == image_resample_box)
                EXPECT_GE(plan.ratio, 2.0) << source << "/" << target;
            else if (plan.resampler == image_resample_bicubic)
                EXPECT_LT(plan.ratio, 2.0) << source << "/" << target;
            else
                EXPECT_EQ(source, target * int32_t(plan.scale_denom));
        }
}

TEST(PlannerRefuses, RequestsWithoutASoundPlan)
{
    struct Bad {
        const char *what;
        int32_t sw, sh;
        image_scale_params p;
    } bad[] = {
        {"mode above 6", 800, 600, request(7, 100, 100)},
        {"zero width", 800, 600, request(5, 0, 100)},
        {"negative height", 800, 600, request(5, 100, -3)},
        {"zero source", 0, 600, request(5, 100, 100)},
        {"zero max_aspect", 800, 600, request(4, 100, 100, 0.0)},
        {"side rounds to nothing", 6000, 400, request(5, 4, 4)},
        {"box beyond 32-bit products", 800, 600, request(5, INT32_MAX / 2, 100)},
    };
    for (const Bad &b : bad) {
        const image_scale_plan plan = image_scale_plan_for_size(b.sw, b.sh, &b.p, 0, 0);
        EXPECT_FALSE(plan.valid) << b.what;
    }
}

TEST(PlannerCrop, HalfTheExcessOfDecodedPixels)
{
    image_scale_plan plan{};
    plan.scale_num = 1;
    plan.scale_denom = 8;
    plan.ratio = 50.0 / 13;
    EXPECT_EQ(image_plan_crop(6000, 128, &plan), 129);
    plan.scale_denom = 2;
    plan.ratio = 1.0;
    EXPECT_EQ(image_plan_crop(1000, 300, &plan), 100);
}

}  // namespace
