#include "samplevalues.h"

#include "crc16.h"
#include "frame.h"

#include <cmath>
#include <cstring>

namespace pyro {

namespace {

// The demo board, an MC-2200 drive for a 48 V permanent-magnet motor. Offsets
// are byte indices (the tables' Addr minus 1) and follow data/Config.For and
// data/Display.For row by row.

constexpr int kSettingsSize = 256;       // Config.For BlockSize
constexpr int kHeaderSize = 32;
constexpr int kRunningSize = 48;         // Display.For BlockSize

void put8(QByteArray &b, int at, int v)
{
    if (at >= 0 && at < b.size())
        b[at] = char(uint8_t(v));
}

void putF32(QByteArray &b, int at, float f)
{
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    putLe32(b, at, bits);
}

int roundInt(double x)
{
    return int(std::nearbyint(x));
}

} // namespace

QByteArray SampleSettingsBlock()
{
    QByteArray b(kSettingsSize, '\0');

    // Header: the device's own bytes (model, firmware version) travel along
    // untouched; then the payload length and the payload's CRC.
    std::memcpy(b.data(), "MC2200-48V\0\0", 12);
    put8(b, 12, 1);                      // firmware 1.03
    put8(b, 13, 3);
    putLe32(b, 20, kSettingsSize - kHeaderSize);
    put8(b, 24, 0x5A);
    put8(b, 25, 0xA5);

    // Motor
    put8(b, 32, 1);                      // motor type: permanent-magnet synchronous
    put8(b, 33, 4);                      // pole pairs
    putLe16(b, 34, 48);                  // rated voltage, V
    putLe32(b, 36, 255);                 // rated current, 0.1 A: 25.5 A
    putLe16(b, 40, 3000);                // rated speed, rpm
    putLe16(b, 42, 4500);                // top speed, rpm
    putF32(b, 44, 0.085f);               // phase resistance, ohm
    putF32(b, 48, 0.32f);                // phase inductance, mH
    putF32(b, 52, 6.8f);                 // back-EMF constant, V/krpm
    putLe16(b, 56, 2500);                // encoder lines
    put8(b, 58, 0);                      // direction: forward
    putF32(b, 60, 1.0f);                 // position feedback: encoder

    // Limits
    putLe32(b, 64, 600);                 // max output current, 0.1 A: 60.0 A
    putLe32(b, 68, 2500);                // acceleration, ms: 2.50 s
    putLe32(b, 72, 3000);                // deceleration, ms: 3.00 s
    putF32(b, 76, 0.8f);                 // speed loop Kp
    putF32(b, 80, 0.015f);               // speed loop Ki
    putLe16(b, 84, 1000);                // current loop bandwidth, Hz
    put8(b, 86, 150);                    // torque limit, %
    put8(b, 87, 0);                      // field weakening: off

    // Protection
    putLe16(b, 88, 60);                  // over-voltage, V
    putLe16(b, 90, 36);                  // under-voltage, V
    putLe32(b, 92, 900);                 // over-current, 0.1 A: 90.0 A
    put8(b, 96, 85);                     // over-temperature, deg C
    put8(b, 97, 10);                     // hysteresis, deg C
    putLe16(b, 98, 3);                   // stall time, s
    putLe32(b, 100, 0x1F);               // protections: phase loss, overload, motor and drive temperature, under-voltage on; auto reset off
    put8(b, 104, 10);                    // reset interval, s
    putLe16(b, 105, 150);                // overload factor, %

    // Communication
    put8(b, 107, 1);                     // station
    put8(b, 108, 3);                     // baud: 57600
    put8(b, 109, 0);                     // parity: none
    putLe16(b, 110, 500);                // time-out, ms
    put8(b, 112, 2);                     // CAN: 500K
    put8(b, 113, 1);                     // CAN node
    putLe16(b, 114, 1000);               // heartbeat, ms
    put8(b, 116, 0);                     // control mode: speed

    // Inputs: the emergency stop (DI3) is normally closed, the rest open.
    putLe32(b, 120, 0x04);
    put8(b, 124, 0);                     // analogue input: 0-10 V
    putF32(b, 125, 0.0f);                // analogue zero, V
    putF32(b, 129, 10.0f);               // analogue full scale, V

    // Outputs: all four active high.
    putLe32(b, 136, 0x0F);
    putLe16(b, 140, 200);                // brake delay, ms
    put8(b, 142, 45);                    // fan start, deg C
    putLe16(b, 143, 50);                 // at-speed band, rpm

    // System
    putLe16(b, 145, 1);                  // parameter set number
    putLe32(b, 147, 20000);              // running-hours warning, h

    const Crc16 crc = CRC16(b, kHeaderSize, kSettingsSize - kHeaderSize);
    put8(b, 28, crc.CRCHiByte);          // high byte first, as in a frame
    put8(b, 29, crc.CRCLoByte);
    return b;
}

QByteArray SampleRunningValues(qint64 msSinceStart)
{
    QByteArray b(kRunningSize, '\0');
    const double t = double(qMax<qint64>(0, msSinceStart)) / 1000.0;   // s

    // A minute's duty cycle, forward and reverse in turn: standstill,
    // 10 s ramp to 1500 rpm, 30 s at speed, 10 s ramp down, standstill.
    const double kCycle = 60.0, kTop = 1500.0;
    const qint64 cycle = qint64(t / kCycle);
    const double c = t - double(cycle) * kCycle;
    const bool reverse = cycle % 2 == 1;
    double set = 0, accel = 0;           // rpm, rpm/s
    if (c >= 5 && c < 15) {
        set = kTop * (c - 5) / 10;
        accel = kTop / 10;
    } else if (c >= 15 && c < 45) {
        set = kTop;
    } else if (c >= 45 && c < 55) {
        set = kTop * (55 - c) / 10;
        accel = -kTop / 10;
    }
    const bool running = set > 0;
    // The drive lags its reference a little and wavers around it.
    const double waver = running ? 6 * std::sin(2 * M_PI * t / 1.7) + 3 * std::sin(2 * M_PI * t / 0.37) : 0;
    const double actual = qMax(0.0, set - accel * 0.15 + waver);
    const double torque = running ? 22 + accel * 0.4 + 2 * std::sin(2 * M_PI * t / 2.3) : 0;   // %
    const double current = !running ? 0.3 : 2.0 + 0.004 * actual + std::fabs(accel) * 0.06 + 0.2 * std::sin(2 * M_PI * t / 0.9);
    const double busV = 48.2 - 0.02 * current + 0.05 * std::sin(2 * M_PI * t / 3.1);
    // Power flows back from the motor while it brakes.
    const double powerKw = !running ? 0 : std::copysign(busV * current * 0.85 / 1000, torque);
    // Temperatures climb slowly towards their working level.
    const double driveC = 25 + 30 * (1 - std::exp(-t / 900)) + (running ? 0.4 : 0);
    const double motorC = 25 + 40 * (1 - std::exp(-t / 1500));

    int state = running ? 1 : 0;         // stop, run, fault, standby
    if (t < 1)
        state = 3;
    put8(b, 0, state);
    putLe16(b, 1, uint16_t(roundInt(set)));
    putLe16(b, 3, uint16_t(roundInt(actual)));
    putLe32(b, 5, uint32_t(roundInt(actual * 4 / 60 * 100)));   // 4 pole pairs, 0.01 Hz
    putLe16(b, 9, uint16_t(roundInt(busV * 10)));               // 0.1 V
    putLe32(b, 11, uint32_t(roundInt(current * 100)));          // 0.01 A
    putLe16(b, 15, uint16_t(int16_t(roundInt(torque))));        // negative while braking
    putF32(b, 17, float(powerKw));
    put8(b, 21, roundInt(driveC));
    put8(b, 22, roundInt(motorC));
    putF32(b, 23, float(10.0 * set / 3000.0 + (running ? 0.01 * std::sin(2 * M_PI * t / 0.5) : 0)));
    putLe32(b, 27, uint32_t(qMin<qint64>(msSinceStart / 1000, 0x7FFFFFFF)));
    put8(b, 31, 0);                      // no fault
    putF32(b, 32, 0.0f);                 // control mode: speed

    uint32_t status = 0;
    if (t >= 1)
        status |= 1u << 0;               // enabled
    if (running)
        status |= 1u << 1;               // running
    if (reverse)
        status |= 1u << 2;
    if (running && accel == 0 && std::fabs(actual - set) < 50)
        status |= 1u << 3;               // at speed
    if (running && accel > 0 && c < 7)
        status |= 1u << 4;               // current limit at the start of a ramp
    if (running)
        status |= 1u << 5;               // brake released
    if (driveC >= 45)
        status |= 1u << 6;               // fan on
    putLe32(b, 36, status);

    uint32_t inputs = 1u << 2;           // the emergency stop loop stays closed
    if (c >= 5 && c < 55)
        inputs |= 1u << 0;               // start
    if (reverse)
        inputs |= 1u << 1;
    putLe32(b, 40, inputs);
    uint32_t outputs = 0;
    if (running)
        outputs |= (1u << 0) | (1u << 2); // run lamp, brake coil
    putLe32(b, 44, outputs);
    return b;
}

} // namespace pyro
