// Prints the initialiser of image_gamma_fixed (src/resample/tables.cpp).
//
// Entry i is the double-precision encoder applied to i / 4095.0. The encoder
// calls libm pow, which a constant expression cannot, so the table is kept as
// a literal and this program regenerates it with the same libm:
//
//   g++ -std=c++20 -O0 -ffp-contract=off tools/gen_gamma_table.cpp -o gen -lm
//   ./gen > table.inc
//
// The formula below must stay identical to image_linear_to_byte; the unit
// tests compare all 4096 entries against that function at run time.
#include <cmath>
#include <cstdio>

static int encode(double x) {
    double y;
    if (x <= 0.0031308)
        y = (12.92 * x) * 255.0;
    else
        y = (1.035 * std::pow(x, 0.45454545454545453) - 0.035) * 255.0;
    if (!(y > -0.5)) return 0;
    if (y >= 255.5) return 255;
    return static_cast<int>(std::lround(y));
}

int main() {
    for (int row = 0; row < 4096; row += 16) {
        std::printf("    /* %4d */ ", row);
        for (int k = 0; k < 16; ++k)
            std::printf("%3d,", encode((row + k) / 4095.0));
        std::printf("\n");
    }
    return 0;
}
