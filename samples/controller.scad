// Hand controller with a tracking ring, in millimetres. The grip runs along
// -Y; the ring stands above it, tipped forwards, and is joined to the grip by
// a short neck. Sensors go on the ring and the top of the grip.

$fn = 64;

module grip() hull() {
    translate([0, -105, 6]) sphere(r = 17);
    translate([0, -20, 0]) sphere(r = 21);
}

module neck() hull() {
    translate([0, -20, 0]) sphere(r = 19);
    translate([0, 12, 0]) scale([1.3, 1, 1]) sphere(r = 9);
}

// The ring: a torus of 46 mm radius whose tube is 16 mm across and 20 mm deep,
// in a plane tipped 35 degrees about X; its lowest point meets the neck at
// (0, 15, 0).
module ring() translate([0, 15 + 46 * cos(35), 46 * sin(35)]) rotate([35, 0, 0])
    rotate_extrude($fn = 180) translate([46, 0]) scale([0.8, 1.0]) circle(r = 10, $fn = 48);

union() {
    grip();
    neck();
    ring();
}
