// What a match is judged by: the stars of the image, the catalog's in the frame, which may be
// which, and how dense the image's stars lie.
#pragma once

#include <cstddef>
#include <vector>

namespace vestrel {

/// A catalog star where the plate puts it.
struct PredictedStar {
    double X = 0;  ///< pixels
    double Y = 0;
    double Magnitude = 0;
    double Error = 0;  ///< of the catalog's position, one axis, pixels (1 σ); 0 when not known
};

/// A star of the image.
struct ObservedStar {
    double X = 0;  ///< pixels
    double Y = 0;
    double Flux = 0;
    double Error = 0;  ///< of the centroid, one axis, pixels (1 σ); 0 when not known
};

/// A pair of stars: places in a list of the catalog's and in one of the image's.
struct StarPlaces {
    std::size_t Catalog = 0;
    std::size_t Image = 0;
};

/// Stars of both kinds, brightest first, and who is near whom.
class FrameStars {
 public:
    /// A catalog star near an image star.
    struct Candidate {
        std::size_t Catalog = 0;
        double Weight = 0;  ///< that the image star is this one, of all in the frame
    };
    struct Observed {
        ObservedStar Star;
        std::vector<Candidate> Near;  ///< rising
        double LogDensity = 0;        ///< of the image's stars here, when there is one near
    };

    /// @param width, height of the image, pixels
    /// @param reach         how far from its place a catalog star may be, pixels
    FrameStars(const std::vector<PredictedStar>& catalog, const std::vector<ObservedStar>& image,
               int width, int height, double reach);

    std::vector<PredictedStar> Catalog;  ///< the brightest 1000
    std::vector<Observed> Image;         ///< the brightest 400
    double Reach = 0;

    /// The places in `Catalog` and `Image` of places in the lists given; false when a star is not
    /// among those kept.
    bool Find(const StarPlaces& given, StarPlaces& found) const;

    /// The density of image stars about a place, as a probability per square pixel, from the
    /// distance of the sixth nearest star; at least that of evenly spread ones.
    /// @param except place in `Image` of a star that is left out
    double DensityAt(double x, double y, std::size_t except) const;

    double Distance(const StarPlaces& pair) const;

 private:
    void FindNear();
    void Weigh(Observed& star, std::size_t place);
    double UsedArea(int width, int height) const;

    std::vector<std::size_t> catalogOrder_;  ///< places in the lists given
    std::vector<std::size_t> imageOrder_;
    std::vector<double> logRanks_;
    double evenDensity_ = 0;
};

}  // namespace vestrel
