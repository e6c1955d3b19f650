# One fuzz target per entry point that reads outside input; fuzz/<name>_fuzz.cpp.
set(SENSORLAY_FUZZ_TARGETS stl_reader surface model_file device_record imu_input option_scan quality_map)
