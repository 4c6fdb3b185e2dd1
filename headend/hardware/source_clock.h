// How fast a sender's clock runs compared with the host's, from the times at which its PCRs arrive. Used by
// the inputs from the network.
#pragma once

namespace headend {

// The rate is nominal at first. A straight line through the delays of about the last ten minutes, averaged
// over a second each, gives the sender's rate with a doubt that becomes smaller with time. The rate moves
// only as far as the line and its doubt demand. After five minutes the wait in the buffer is led back to its
// middle as well, at 2 ppm or less.
class SourceClock {
 public:
  // A PCR has arrived. `elapsed_s`: since the last one, by the PCRs. `delay_s`: what it is late, compared
  // with the first one. `excess_s`: its wait in the buffer beyond the middle.
  void note(double elapsed_s, double delay_s, double excess_s);

  // By how much the sender is slower than the host: 1e-6 is 1 ppm. From -kFarthest to kFarthest.
  double slowness() const { return slowness_; }
  // The PCRs start anew, at the same rate.
  void restart();

  static constexpr double kFarthest = 100e-6;

 private:
  struct Line {
    double slope;
    double doubt;  // the sender's rate differs from the slope by no more
  };
  void addSecond(double delay_s, double excess_s);
  Line line() const;

  // Of the current second.
  double elapsed_s_ = 0;
  double delays_s_ = 0;
  double excesses_s_ = 0;
  int pcrs_ = 0;

  // Sums over the seconds, which count less the older they are; x is the time to the last one, negative.
  double weight_ = 0, x_ = 0, xx_ = 0, y_ = 0, xy_ = 0, yy_ = 0;
  double seconds_ = 0;
  double followed_ = 0;  // without the centring
  double slowness_ = 0;
};

}  // namespace headend
