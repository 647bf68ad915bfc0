#pragma once

// Frames of the tracking and motion-capture devices that the server relays. The meaning of
// the positional fields (identifiers, counts, qualities, timestamps) is the device bridge's
// own; the client depends only on their types and order. The notes on the fields say what
// the reference server's simulated devices put there, which follows the devices' own SDKs.

#include <vector>

#include <dax/types/geometry.hpp>
#include <dax/types/record.hpp>

namespace dax::types {

// ---- ART ----------------------------------------------------------------------------------

/// A tracked body: its pose and two values.
struct art_body_t {
    pose7_t pose;  ///< position (m) and rotation
    float f1 = 0;  ///< quality, 0 to 1
    float f2 = 0;  ///< second value; 0 from the reference server
    DAX_RECORD_FIELDS(pose, f1, f2)
};

/// First ART list element.
struct art_a_t {
    int i1 = 0;       ///< target id
    art_body_t body;  ///< the tracked target
    DAX_RECORD_FIELDS(i1, body)
};

/// Second ART list element.
struct art_b_t {
    int i1 = 0;       ///< target id
    int i2 = 0;       ///< second integer; 0 from the reference server
    art_body_t body;  ///< the tracked target
    DAX_RECORD_FIELDS(i1, i2, body)
};

/// Third ART list element.
struct art_c_t {
    int i1 = 0;             ///< target id
    pose7_t pose;           ///< position and rotation
    float f1 = 0;           ///< quality, 0 to 1
    int i2 = 0;             ///< a count of the bridge's own; 6 from the reference server
    int_list_t ints;        ///< button states, one per button
    double_list_t doubles;  ///< analogue controls
    DAX_RECORD_FIELDS(i1, pose, f1, i2, ints, doubles)
};

/// Item of an art_d_t.
struct art_e_t {
    pose7_t pose;         ///< position and rotation of the finger tip
    float f1 = 0;         ///< tip radius, m
    float_list_t list_a;  ///< phalanx lengths, m
    float_list_t list_b;  ///< phalanx angles, rad
    DAX_RECORD_FIELDS(pose, f1, list_a, list_b)
};

/// Fourth ART list element.
struct art_d_t {
    int i1 = 0;                  ///< glove id
    pose7_t pose;                ///< position and rotation of the back of the hand
    float f1 = 0;                ///< quality, 0 to 1
    bool b1 = false;             ///< true for a left hand
    int i2 = 0;                  ///< number of fingers in `items`
    std::vector<art_e_t> items;  ///< the fingers
    DAX_RECORD_FIELDS(i1, pose, f1, b1, i2, items)
};

/// One ART frame.
struct art_frame_t {
    int i1 = 0;                   ///< frame number
    std::vector<art_a_t> list_a;  ///< 6-DOF targets
    std::vector<art_b_t> list_b;  ///< second kind of targets
    std::vector<art_c_t> list_c;  ///< flysticks (buttons and controls)
    std::vector<art_d_t> list_d;  ///< finger-tracking gloves
    DAX_RECORD_FIELDS(i1, list_a, list_b, list_c, list_d)
};

// ---- Kinect -------------------------------------------------------------------------------

/// One joint of a Kinect body.
struct kinect_joint_t {
    int i1 = 0;    ///< joint index
    int i2 = 0;    ///< tracking state: 2 tracked
    pose7_t pose;  ///< position (m) and rotation
    int i3 = 0;    ///< rotation tracking state: 2 tracked
    DAX_RECORD_FIELDS(i1, i2, pose, i3)
};

/// One Kinect body.
struct kinect_body_t {
    int i1 = 0;                          ///< body (person) id
    std::vector<kinect_joint_t> joints;  ///< the joints, by index
    DAX_RECORD_FIELDS(i1, joints)
};

/// One Kinect frame.
struct kinect_frame_t {
    int i1 = 0;                         ///< frame number
    std::vector<kinect_body_t> bodies;  ///< the people seen
    DAX_RECORD_FIELDS(i1, bodies)
};

// ---- Leap ---------------------------------------------------------------------------------

/// One bone of a Leap finger.
struct leap_bone_t {
    int i1 = 0;    ///< bone index, 0 (metacarpal) to 3 (distal)
    int i2 = 0;    ///< finger index
    int i3 = 0;    ///< hand id
    pose7_t pose;  ///< centre and rotation of the bone
    float f1 = 0;  ///< length, m
    float f2 = 0;  ///< width, m
    DAX_RECORD_FIELDS(i1, i2, i3, pose, f1, f2)
};

/// One Leap finger.
struct leap_finger_t {
    int i1 = 0;                      ///< finger id
    int i2 = 0;                      ///< finger type, 0 (thumb) to 4 (pinky)
    std::vector<leap_bone_t> bones;  ///< the four bones
    DAX_RECORD_FIELDS(i1, i2, bones)
};

/// One Leap hand.
struct leap_hand_t {
    int i1 = 0;                          ///< hand id
    bool b1 = false;                     ///< true for a left hand
    float f1 = 0;                        ///< confidence, 0 to 1
    pose7_t pose_a;                      ///< palm
    pose7_t pose_b;                      ///< wrist
    pose7_t pose_c;                      ///< elbow
    float f2 = 0;                        ///< grab strength, 0 to 1
    float f3 = 0;                        ///< palm width, m
    std::vector<leap_finger_t> fingers;  ///< the five fingers
    DAX_RECORD_FIELDS(i1, b1, f1, pose_a, pose_b, pose_c, f2, f3, fingers)
};

/// One Leap frame.
struct leap_frame_t {
    int i1 = 0;                      ///< frame number
    std::vector<leap_hand_t> hands;  ///< the hands seen
    DAX_RECORD_FIELDS(i1, hands)
};

// ---- Moticon ------------------------------------------------------------------------------

/// One Moticon insole: a point and a value.
struct moticon_side_t {
    vec2f_t point;    ///< centre of pressure on the insole, m
    float value = 0;  ///< total force, N
    DAX_RECORD_FIELDS(point, value)
};

/// One Moticon frame.
struct moticon_frame_t {
    moticon_side_t left;   ///< left insole
    moticon_side_t right;  ///< right insole
    DAX_RECORD_FIELDS(left, right)
};

// ---- OpenVR -------------------------------------------------------------------------------

/// One OpenVR device.
struct openvr_device_t {
    bool b1 = false;  ///< connected
    bool b2 = false;  ///< pose valid
    pose7_t pose;     ///< position (m) and rotation
    vec6d_t values;   ///< linear (m/s) then angular (rad/s) velocity
    int i1 = 0;       ///< device index
    int i2 = 0;       ///< device class: 1 headset, 2 controller
    DAX_RECORD_FIELDS(b1, b2, pose, values, i1, i2)
};

/// One OpenVR frame.
struct openvr_frame_t {
    openvr_device_t device_a;              ///< the headset
    openvr_device_t device_b;              ///< first controller
    openvr_device_t device_c;              ///< second controller
    int_list_t ints_a;                     ///< device indices
    int_list_t ints_b;                     ///< device classes, as `ints_a`
    std::vector<openvr_device_t> devices;  ///< every tracked device
    DAX_RECORD_FIELDS(device_a, device_b, device_c, ints_a, ints_b, devices)
};

// ---- OptiTrack ----------------------------------------------------------------------------

/// One OptiTrack rigid body.
struct optitrack_body_t {
    int i1 = 0;    ///< rigid body id
    float f1 = 0;  ///< mean marker error, m
    pose7_t pose;  ///< position (m) and rotation
    DAX_RECORD_FIELDS(i1, f1, pose)
};

/// One OptiTrack frame.
struct optitrack_frame_t {
    int i1 = 0;                            ///< frame number
    float f1 = 0;                          ///< time stamp, s
    std::vector<optitrack_body_t> bodies;  ///< the rigid bodies
    DAX_RECORD_FIELDS(i1, f1, bodies)
};

// ---- Xsens --------------------------------------------------------------------------------

/// One Xsens body segment.
struct xsens_segment_t {
    int i1 = 0;         ///< segment index
    int i2 = 0;         ///< frame number
    quat4f_t rotation;  ///< orientation, scalar first
    vec3f_t vector_a;   ///< position, m
    vec3f_t vector_b;   ///< velocity, m/s
    DAX_RECORD_FIELDS(i1, i2, rotation, vector_a, vector_b)
};

/// One Xsens frame.
struct xsens_frame_t {
    std::vector<xsens_segment_t> segments;  ///< the body segments, by index
    DAX_RECORD_FIELDS(segments)
};

}  // namespace dax::types
