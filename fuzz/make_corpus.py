#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_h26x_base into corpus/h26x_base/.

Each input is eight control bytes (bit reader arguments and the scanners'
non-zero flag) followed by one frame. Run from anywhere; it overwrites the
seeds it knows and leaves other files alone.
"""
import os

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "h26x_base")

SC4 = b"\x00\x00\x00\x01"
SC3 = b"\x00\x00\x01"


def control(flag=1, start=0, end=0, bit=7, bits=8, misc=0):
    return bytes([flag, start & 0xFF, start >> 8, end & 0xFF, end >> 8, bit, bits, misc])


def payload(seed, n):
    # Filler that never forms a start code: no zero bytes at all.
    return bytes(((seed * 31 + i * 7) % 254) + 1 for i in range(n))


def unit(header, n, seed=0, start=SC4):
    return start + bytes([header]) + payload(seed + header, n)


h264_idr = (unit(0x67, 12) + unit(0x68, 4) + unit(0x06, 20) + unit(0x65, 120))
h265_idr = (unit(0x40, 24) + unit(0x42, 40) + unit(0x44, 6) + unit(0x4E, 18) + unit(0x26, 150))

SEEDS = {
    "h264_sps_pps_sei_idr": control(start=4, bits=24) + h264_idr,
    "h264_p_only": control(flag=0x80, start=1, bit=3, bits=32) + unit(0x41, 90),
    "h264_aud_p": control(bits=5) + unit(0x09, 1) + unit(0x21, 70),
    "h265_vps_sps_pps_idr": control(start=5, bit=6, bits=6) + h265_idr,
    "h265_p_after_sei": control(bits=16) + unit(0x4E, 10) + unit(0x02, 60),
    # Three-byte start codes are not unit boundaries; only the four-byte one is.
    "three_byte_start_codes": control() + unit(0x67, 10, start=SC3) + unit(0x68, 3, start=SC3)
    + unit(0x65, 40) + unit(0x41, 8, start=SC3),
    # The start code is the last three zeros of a longer run.
    "zero_runs": control(bits=1) + b"\x00" * 9 + b"\x01\x67" + payload(1, 6) + b"\x00" * 70
    + b"\x01\x65" + payload(2, 30),
    # A start code whose header byte would lie past the end does not count.
    "start_code_at_end": control(end=0) + unit(0x65, 20) + SC4,
    "picture_in_last_bytes": control() + unit(0x67, 20) + unit(0x65, 2),
    "header_is_last_byte": control() + unit(0x06, 16) + SC4 + b"\x41",
    # Start codes near the end of frames long enough for the vector search,
    # whose last blocks then end close to the frame's last byte.
    "long_frame_ends_in_start_code": control() + payload(4, 66) + SC4,
    "long_frame_ends_in_unit": control() + unit(0x67, 70) + payload(5, 60) + SC4 + b"\x65",
    # More units than V1's list holds, the picture last, across several
    # 64-byte blocks of the vector search.
    "many_units": control(start=3, bit=0, bits=17)
    + b"".join(unit(0x06, 9 + 5 * k, seed=k) for k in range(11)) + unit(0x65, 40),
    "exactly_seven": control() + b"".join(unit(0x06, 60, seed=k) for k in range(6)) + unit(0x65, 30),
    "exactly_eight": control() + b"".join(unit(0x06, 3, seed=k) for k in range(7)) + unit(0x25, 30),
    "no_start_code": control(bits=32) + payload(9, 200),
    "back_to_back": control() + SC4 * 6 + b"\x65" + payload(3, 12),
    "bit_reader_edges": control(flag=0xFF, start=0xFFFF, end=0x0001, bit=0x85, bits=0xF8, misc=0x0F)
    + unit(0x65, 8),
}


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, data in SEEDS.items():
        assert len(data) < 4096, name
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)
    print(f"{len(SEEDS)} seeds in {OUT}")


if __name__ == "__main__":
    main()
