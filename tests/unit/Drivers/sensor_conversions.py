#!/usr/bin/env python3
"""Expected LM75 and PMBus conversions, computed from the chips' number formats
without the driver's code. Prints the JSON data file the conversion tests read:
    python3 sensor_conversions.py > sensor-conversions.json
Values are exact binary fractions, so float and double agree on them."""
import json
import struct


def f32(x):
    return struct.unpack("f", struct.pack("f", x))[0]


def s8(v):
    v &= 0xFF
    return v - 0x100 if v & 0x80 else v


def sext(v, bits):
    v &= (1 << bits) - 1
    return v - (1 << bits) if v & (1 << (bits - 1)) else v


def lm75_word_to_celsius(word):
    # Low byte: signed whole degrees. Bit 15: half a degree, applied away from zero.
    t = float(s8(word))
    if not word & 0x8000:
        return t
    return t + 0.5 if t >= 0 else t - 0.5


def round_half_away(x):
    return int(x + 0.5) if x >= 0 else -int(-x + 0.5)


def lm75_threshold_word(celsius):
    # Whole part truncated, low 8 bits as a signed byte, sign-extended into the
    # high byte; bit 15 from the doubled remainder rounded half away from zero.
    v = f32(celsius)
    i = int(v)
    b = s8(i)
    f = f32(v - b)
    h = round_half_away(f32(2 * f))
    high = (h * 128) & 0xFF
    return ((high << 8) | (b & 0xFFFF)) & 0xFFFF


def linear11(word):
    return sext(word, 11) * 2.0 ** sext(word >> 11, 5)


def vout_linear16(mode, raw, vout_exponent=255):
    exp = vout_exponent if vout_exponent < 255 else mode
    return sext(raw, 16) * 2.0 ** sext(exp, 5)


lm75_words = [0x0000, 0x8000, 0x0001, 0x8001, 0x0019, 0x8019, 0x007F, 0x807F,
              0x0080, 0x8080, 0x00E7, 0x80E7, 0x00FF, 0x80FF, 0x00F6, 0x80F6,
              0x7F19, 0x7FE7, 0x0027, 0x006E]
lm75_thresholds = [0.0, 0.2, 0.25, 0.5, 0.75, 0.8, 25.0, 25.5, 75.0, 75.5, 80.3, 80.9,
                   110.0, 127.0, 127.5, -0.5, -1.0, -10.0, -10.5, -25.5, -55.0, -128.0,
                   128.0, 200.0, 300.0]
linear11_words = [0x0000, 0x0001, 0x03FF, 0x0400, 0x07FF, 0x0800, 0x0FFF, 0x7BFF, 0x7C00,
                  0x8001, 0xF84C, 0xF800, 0xF8F0, 0xC800, 0xD3C0, 0xE000, 0x1B69, 0x1A58,
                  0xEBFF, 0x0BB8, 0x13FF, 0xFFFF, 0x83FF, 0x8400]
vout_cases = [(0x17, 0x1800, 255), (0x17, 0x1800, 26), (0x17, 0x0000, 255), (0x17, 0x8000, 255),
              (0x17, 0xF000, 255), (0x17, 0xFFFF, 255), (0x1F, 0x0003, 255), (0x0F, 0x0001, 255),
              (0x10, 0x0100, 255), (0x00, 0x7FFF, 255), (0x17, 0x1800, 0), (0x17, 0x1800, 15)]

print(json.dumps({
    "lm75WordToCelsius": [[f"0x{w:04X}", lm75_word_to_celsius(w)] for w in lm75_words],
    "lm75ThresholdWord": [[c, f"0x{lm75_threshold_word(c):04X}"] for c in lm75_thresholds],
    "linear11": [[f"0x{w:04X}", linear11(w)] for w in linear11_words],
    "voutLinear16": [[f"0x{m:02X}", f"0x{r:04X}", e, vout_linear16(m, r, e)] for m, r, e in vout_cases],
}, indent=1))
