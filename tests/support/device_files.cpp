#include "tests/support/device_files.h"

namespace sensorlay::testing {

std::string richDeviceJson() {
  return R"(// bench unit 7
{
  "device_class": "hmd", "revision": 3, "device_vid": 10462, "device_pid": 8192,
  "device_serial_number": "LHR-1234", "render_model": "visor_rm", "manufacturer": "Acme",
  "model_number": "Visor 1", "attached_device_id": "LHR-1234-A",
  "device": { "eye_target_width_in_pixels": 1440, "eye_target_height_in_pixels": 1600, "num_windows": 2,
              "first_eye": "eEYE_LEFT", "last_eye": "eEYE_RIGHT",
              "subpixel_shift_red_in_pixels": [0.25, -0.5], "hidden_area_mesh": 3 },
  "display_edid": ["AAAA", "BBBB"],
  "direct_mode_edid_vid": "VLV", "direct_mode_edid_pid": "12AB",
  "seconds_from_vsync_to_photons": 0.0111, "seconds_from_photons_to_vblank": 0.002,
  "display_mc": { "type": 2, "offset": 0.5, "scale": 1.25, "left": "l.png", "right": "r.png" },
  "display_gc": { "black_clamp": 0.01, "type": 1, "offset": 0.1, "scale": 0.9, "prescale": 1.5, "image": "gc.png" },
  "tracking_camera_intrinsics": "cam.json", "tracking_camera_unique_id": 77,
  "tracking_to_eye_transform": [
    { "intrinsics": [[1.2, 0, 0.1], [0, 1.3, 0.2], [0, 0, -1]],
      "distortion": { "type": "DISTORT_DPOLY3", "center_x": 0.01, "center_y": -0.02, "coeffs": [0.1, 0.2, 0, 0.4] },
      "distortion_red": { "type": "DISTORT_DPOLY3", "coeffs": [0.11, 0.2, 0, 0.4] },
      "undistort_r2_cutoff": 1.5, "eye_to_head": [[1, 0, 0], [0, 0.5, 0], [0, 0, 1]] },
    { "intrinsics": [[1.1, 0, -0.1], [0, 1.3, 0.2], [0, 0, -1]], "grow_for_undistort": 0.6 }
  ],
  "imu": { "position": [0.01, 0.02, 0.03], "plus_x": [0, 1, 0], "plus_z": [0, 0, 1],
           "gyro_bias": [0.001, 0, 0], "acc_scale": [1.01, 1, 0.99] },
  "head": { "position": [0, 0.1, 0], "plus_x": [0, 0, -1], "plus_z": [1, 0, 0] },
  "beaconet_config": { "modelCad": "visor.stl", "channelMap": [0, 1],
                       "modelPoints": [[0.05, 0, 0.02], [0.06, 0.01, 0.02]],
                       "modelNormals": [[0, 0, 1], [0, 0, 2]] },
  "isps": [ { "driver": "camlib2" } ],
  "tracked_cameras": [
    { "name": "eye", "intrinsics": { "interface": "usb", "width": 640, "height": 480, "focal_x": 400.5, "focal_y": 401.5,
                                     "center_x": 320.25, "center_y": 240.75,
                                     "distort": { "type": "DISTORT_FTHETA", "coeffs": [0.5, -0.25] } },
      "extrinsics": { "position": [0.01, -0.02, 0.03], "plus_x": [0, 0, 1], "plus_z": [-1, 0, 0] } },
    { "intrinsics": { "width": 320, "height": 240 }, "head_from_camera": [0, 0, 0, 1, 0.1, 0.2, 0.3] }
  ],
  "tracked_controller_role": "TrackedControllerRole_LeftHand", "resource_root": "Visor",
  "firmware_config": { "mode": 3, "flags": [1, 2], "gain": 0.1 },
  "expected_controllers": 4, "expected_bases": 3, "input_profile": "visor.json",
  "registered_device_type_prefix": "acme", "display_usb_protocol": "hid", "display_usb_vid": 70000, "display_usb_pid": 5,
  "ipd": { "low_mm": 64, "high_mm": 70, "minstep_mm": 0.5, "enable": true },
  "mfg_build_info": { "line": "B", "date": "2020-01-01" },
  "not_a_device_key": 5
}
)";
}

std::string minimalHmdJson(const std::string& extraMembers) {
  std::string text =
      "{ \"device_class\": \"hmd\", \"device\": { \"eye_target_width_in_pixels\": 100, "
      "\"eye_target_height_in_pixels\": 80, \"num_windows\": 1 }";
  if (!extraMembers.empty()) text += ", " + extraMembers;
  return text + " }";
}

}  // namespace sensorlay::testing
