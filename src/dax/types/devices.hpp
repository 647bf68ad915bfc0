#pragma once

// Frames of the tracking and motion-capture devices that the server relays. The meaning of
// the positional fields (identifiers, counts, qualities, timestamps) is the device bridge's
// own; the client depends only on their types and order.

#include <vector>

#include <dax/types/geometry.hpp>
#include <dax/types/record.hpp>

namespace dax::types {

// ---- ART ----------------------------------------------------------------------------------

/// A tracked body: its pose and two values.
struct art_body_t {
    pose7_t pose;
    float f1 = 0;
    float f2 = 0;
    DAX_RECORD_FIELDS(pose, f1, f2)
};

/// First ART list element.
struct art_a_t {
    int i1 = 0;
    art_body_t body;
    DAX_RECORD_FIELDS(i1, body)
};

/// Second ART list element.
struct art_b_t {
    int i1 = 0;
    int i2 = 0;
    art_body_t body;
    DAX_RECORD_FIELDS(i1, i2, body)
};

/// Third ART list element.
struct art_c_t {
    int i1 = 0;
    pose7_t pose;
    float f1 = 0;
    int i2 = 0;
    int_list_t ints;
    double_list_t doubles;
    DAX_RECORD_FIELDS(i1, pose, f1, i2, ints, doubles)
};

/// Item of an art_d_t.
struct art_e_t {
    pose7_t pose;
    float f1 = 0;
    float_list_t list_a;
    float_list_t list_b;
    DAX_RECORD_FIELDS(pose, f1, list_a, list_b)
};

/// Fourth ART list element.
struct art_d_t {
    int i1 = 0;
    pose7_t pose;
    float f1 = 0;
    bool b1 = false;
    int i2 = 0;
    std::vector<art_e_t> items;
    DAX_RECORD_FIELDS(i1, pose, f1, b1, i2, items)
};

/// One ART frame.
struct art_frame_t {
    int i1 = 0;
    std::vector<art_a_t> list_a;
    std::vector<art_b_t> list_b;
    std::vector<art_c_t> list_c;
    std::vector<art_d_t> list_d;
    DAX_RECORD_FIELDS(i1, list_a, list_b, list_c, list_d)
};

// ---- Kinect -------------------------------------------------------------------------------

/// One joint of a Kinect body.
struct kinect_joint_t {
    int i1 = 0;
    int i2 = 0;
    pose7_t pose;
    int i3 = 0;
    DAX_RECORD_FIELDS(i1, i2, pose, i3)
};

/// One Kinect body.
struct kinect_body_t {
    int i1 = 0;
    std::vector<kinect_joint_t> joints;
    DAX_RECORD_FIELDS(i1, joints)
};

/// One Kinect frame.
struct kinect_frame_t {
    int i1 = 0;
    std::vector<kinect_body_t> bodies;
    DAX_RECORD_FIELDS(i1, bodies)
};

// ---- Leap ---------------------------------------------------------------------------------

/// One bone of a Leap finger.
struct leap_bone_t {
    int i1 = 0;
    int i2 = 0;
    int i3 = 0;
    pose7_t pose;
    float f1 = 0;
    float f2 = 0;
    DAX_RECORD_FIELDS(i1, i2, i3, pose, f1, f2)
};

/// One Leap finger.
struct leap_finger_t {
    int i1 = 0;
    int i2 = 0;
    std::vector<leap_bone_t> bones;
    DAX_RECORD_FIELDS(i1, i2, bones)
};

/// One Leap hand.
struct leap_hand_t {
    int i1 = 0;
    bool b1 = false;
    float f1 = 0;
    pose7_t pose_a;
    pose7_t pose_b;
    pose7_t pose_c;
    float f2 = 0;
    float f3 = 0;
    std::vector<leap_finger_t> fingers;
    DAX_RECORD_FIELDS(i1, b1, f1, pose_a, pose_b, pose_c, f2, f3, fingers)
};

/// One Leap frame.
struct leap_frame_t {
    int i1 = 0;
    std::vector<leap_hand_t> hands;
    DAX_RECORD_FIELDS(i1, hands)
};

// ---- Moticon ------------------------------------------------------------------------------

/// One Moticon insole: a point and a value.
struct moticon_side_t {
    vec2f_t point;
    float value = 0;
    DAX_RECORD_FIELDS(point, value)
};

/// One Moticon frame.
struct moticon_frame_t {
    moticon_side_t left;
    moticon_side_t right;
    DAX_RECORD_FIELDS(left, right)
};

// ---- OpenVR -------------------------------------------------------------------------------

/// One OpenVR device.
struct openvr_device_t {
    bool b1 = false;
    bool b2 = false;
    pose7_t pose;
    vec6d_t values;
    int i1 = 0;
    int i2 = 0;
    DAX_RECORD_FIELDS(b1, b2, pose, values, i1, i2)
};

/// One OpenVR frame.
struct openvr_frame_t {
    openvr_device_t device_a;
    openvr_device_t device_b;
    openvr_device_t device_c;
    int_list_t ints_a;
    int_list_t ints_b;
    std::vector<openvr_device_t> devices;
    DAX_RECORD_FIELDS(device_a, device_b, device_c, ints_a, ints_b, devices)
};

// ---- OptiTrack ----------------------------------------------------------------------------

/// One OptiTrack rigid body.
struct optitrack_body_t {
    int i1 = 0;
    float f1 = 0;
    pose7_t pose;
    DAX_RECORD_FIELDS(i1, f1, pose)
};

/// One OptiTrack frame.
struct optitrack_frame_t {
    int i1 = 0;
    float f1 = 0;
    std::vector<optitrack_body_t> bodies;
    DAX_RECORD_FIELDS(i1, f1, bodies)
};

// ---- Xsens --------------------------------------------------------------------------------

/// One Xsens body segment.
struct xsens_segment_t {
    int i1 = 0;
    int i2 = 0;
    quat4f_t rotation;
    vec3f_t vector_a;
    vec3f_t vector_b;
    DAX_RECORD_FIELDS(i1, i2, rotation, vector_a, vector_b)
};

/// One Xsens frame.
struct xsens_frame_t {
    std::vector<xsens_segment_t> segments;
    DAX_RECORD_FIELDS(segments)
};

}  // namespace dax::types
