#!/usr/bin/python3
"""Renders real frontal face photos as heads turned to known angles: the
pose-labelled set that bench_quality measures the head pose against.

Each photo is laid on a generic head (an ellipsoid 156 mm wide, 230 high and
200 deep, with a nose, brows, eye sockets, lips and a chin of adult
proportions, placed by the photo's eye centres), turned about the head's
centre, and seen by a pinhole camera 550 mm away with a 60-degree view
across a 720-pixel frame (shown at 1.6 times that scale). What lies outside
the head stays where it was, blurred and darkened, as a room behind a user
does. The angles are those applied to the photo's own pose: bench_quality
counts errors against each person's 0/0 image, so a photo that was not
quite frontal does not count against the estimate.

The head shape here is generic and was not fitted to anything; the pose
estimator's model was fitted on two of these people and is checked on the
other two (see bench/core/bench_quality.cpp).

    bench/core/make_pose_set.py [OUT]   default: tests/data/headpose
Needs python3-opencv and python3-numpy (Debian) and, for two of the people,
the kphotoalbum package's demo photos:
    apt-get download kphotoalbum && dpkg-deb -x kphotoalbum_*.deb /tmp/kpa
"""
import os
import sys

import cv2
import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
DATA = os.path.join(HERE, '..', '..', 'tests', 'data')
KPA = '/tmp/kpa/usr/share/kphotoalbum/demo'

# name, photo, its eye centres (the person's right eye first, in pixels),
# and the folder the renders go to (GPL photos keep to a folder of their own).
SOURCES = [
    ('hopper', os.path.join(DATA, 'matplotlib__grace_hopper.jpg'), (217, 191), (303, 185), ''),
    ('collins', os.path.join(DATA, 'skimage__astronaut.png'), (205, 101), (246, 104), ''),
    ('jesper', os.path.join(KPA, 'jesper_2.jpg'), (322, 207), (446, 217), 'gpl'),
    ('wave', os.path.join(KPA, 'new_wave_2.jpg'), (346, 252), (457, 259), 'gpl'),
]
YAWS = (-45, -30, -15, 0, 15, 30, 45)
PITCHES = (-30, -15, 0, 15, 30)
SIZE = (320, 416)


def render(img, eye_r, eye_l, yaw, pitch, out_size=SIZE):
    h, w = img.shape[:2]
    eye_r = np.array(eye_r, float)
    eye_l = np.array(eye_l, float)
    mid = (eye_r + eye_l) / 2
    mm = 63.0 / np.linalg.norm(eye_l - eye_r)  # millimetres per photo pixel
    # The head: an ellipsoid whose centre is 20 mm below the eyes and 95 mm
    # behind them.
    A, B, C = 78.0, 115.0, 100.0
    below, behind = 20.0, 95.0
    up = 2  # photo pixels are spread over 2x2 points so the turned head has no gaps
    big = cv2.resize(img, (w * up, h * up), interpolation=cv2.INTER_CUBIC)
    vs, us = np.mgrid[0:h * up, 0:w * up].astype(np.float64)
    X = (us / up - mid[0]) * mm
    Y = (vs / up - mid[1]) * mm - below
    q = 1 - (X / A) ** 2 - (Y / B) ** 2
    inside = q > 0
    Z = np.where(inside, behind - C * np.sqrt(np.clip(q, 0, 1)), 0)

    def bump(x0, y0, sx, sy, height):  # y0 from the eye line
        return height * np.exp(-(((X - x0) / sx) ** 2 + ((Y + below - y0) / sy) ** 2) / 2)

    relief = (bump(0, 40, 9, 12, 20) + bump(0, 18, 6, 18, 10)           # nose tip and ridge
              - bump(-31.5, 0, 11, 7, 6) - bump(31.5, 0, 11, 7, 6)      # eye sockets
              + bump(0, -18, 40, 6, 3)                                  # brows
              + bump(0, 68, 18, 7, 4) + bump(0, 98, 22, 12, 4))         # lips, chin
    Z = Z - relief

    distance = 550.0
    focal = 624.0 * out_size[0] / 720.0 * 1.6
    cx, cy = out_size[0] / 2.0, out_size[1] * 0.45
    scale = focal / distance  # output pixels per millimetre at the eyes
    place = np.float32([[mm * scale, 0, cx - mid[0] * mm * scale], [0, mm * scale, cy - mid[1] * mm * scale]])
    room = cv2.warpAffine(cv2.GaussianBlur(img, (0, 0), 6), place, out_size, borderMode=cv2.BORDER_REPLICATE)
    room = (room * 0.55 + 45).astype(np.uint8)

    # yaw > 0 turns the nose towards the picture's right, pitch > 0 lifts the chin.
    a, b = np.radians(-yaw), np.radians(-pitch)
    turn = np.array([[np.cos(a), 0, np.sin(a)], [0, 1, 0], [-np.sin(a), 0, np.cos(a)]])
    tilt = np.array([[1, 0, 0], [0, np.cos(b), -np.sin(b)], [0, np.sin(b), np.cos(b)]])
    P = np.stack([X[inside], Y[inside], Z[inside] - behind], 1) @ (turn @ tilt).T
    P[:, 2] += behind
    P[:, 1] += below
    depth = distance + P[:, 2]
    u = np.round(cx + focal * P[:, 0] / depth).astype(int)
    v = np.round(cy + focal * P[:, 1] / depth).astype(int)
    colours = big[inside]
    seen = (u >= 0) & (u < out_size[0]) & (v >= 0) & (v < out_size[1])
    u, v, depth, colours = u[seen], v[seen], depth[seen], colours[seen]
    order = np.argsort(-depth, kind='stable')  # far first: the near surface is drawn last
    canvas = room.copy()
    written = np.zeros(out_size[::-1], np.uint8)
    canvas[v[order], u[order]] = colours[order]
    written[v[order], u[order]] = 255
    head = cv2.morphologyEx(written, cv2.MORPH_CLOSE, np.ones((5, 5), np.uint8))
    holes = cv2.bitwise_and(head, cv2.bitwise_not(written))
    return cv2.inpaint(canvas, holes, 2, cv2.INPAINT_TELEA)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(DATA, 'headpose')
    rows = []
    for name, path, eye_r, eye_l, folder in SOURCES:
        img = cv2.imread(path)
        if img is None:
            sys.exit('cannot read %s (see the comment at the top for where it comes from)' % path)
        os.makedirs(os.path.join(out, folder), exist_ok=True)
        for yaw in YAWS:
            for pitch in PITCHES:
                file = os.path.join(folder, '%s_y%+03d_p%+03d.jpg' % (name, yaw, pitch))
                cv2.imwrite(os.path.join(out, file), render(img, eye_r, eye_l, yaw, pitch),
                            [cv2.IMWRITE_JPEG_QUALITY, 85])
                rows.append('%s,%s,%d,%d,0' % (file, name, yaw, pitch))
    with open(os.path.join(out, 'labels.csv'), 'w') as labels:
        labels.write('file,identity,yaw,pitch,roll\n' + '\n'.join(rows) + '\n')


if __name__ == '__main__':
    main()
