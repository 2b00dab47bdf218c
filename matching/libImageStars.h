// Finds the star of an image at a place.
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libPlateStar.h"

namespace vestrel {

/// The stars of an image, sorted into buckets to find the one at a place.
class ImageStars {
 public:
    /// @param stars pixels; they must outlive this
    ImageStars(const PlateStarList& stars, std::int32_t width, std::int32_t height);

    /// The star nearest to a place and closer than `reach` (pixels); 0 when there is none.
    std::int32_t Nearest(double x, double y, double reach) const;

    bool InFrame(double x, double y) const {
        return x > -0.5 && y > -0.5 && x < width_ - 0.5 && y < height_ - 0.5;
    }
    /// Stars per square pixel in each of 8 x 8 cells of the frame; at least the mean of the frame.
    const std::vector<double>& Densities() const { return density_; }
    /// The place in `Densities` of the cell around a place of the frame.
    std::size_t DensityCell(double x, double y) const;
    double DensityAt(double x, double y) const { return density_[DensityCell(x, y)]; }
    std::int32_t Count() const { return stars_.Count(); }
    const PlateStarList& Stars() const { return stars_; }
    std::int32_t Width() const { return width_; }
    std::int32_t Height() const { return height_; }

 private:
    std::size_t Bucket(double x, double y) const;

    const PlateStarList& stars_;
    std::int32_t width_;
    std::int32_t height_;
    double side_;  ///< of a bucket, pixels
    std::int32_t columns_;
    std::int32_t rows_;
    std::vector<std::int32_t> starts_;  ///< start of each bucket in `order_`
    std::vector<std::int32_t> order_;
    std::vector<double> density_;
};

}  // namespace vestrel
