// The wearer's head behind headset.scad, in the same millimetre frame: an
// ellipsoid whose face just clears the back of the shell. Used as an obstacle:
// it hides sensors on the back of the shell and takes no sensors itself.

$fn = 96;

translate([0, 15, 133]) scale([76, 112, 100]) sphere(r = 1);
