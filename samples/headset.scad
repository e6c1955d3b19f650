// Head-mounted display shell, in millimetres. The wearer looks along -Z with
// +Y up. The front is a broad visor, slightly domed; the shell tapers towards
// the face opening at the back, where the head (headset_head.scad) sits.
//
// Built as the convex hull of spheres, so the result is one closed surface
// with large smooth areas on which 6 mm sensors fit, and no CSG union is
// needed.

$fn = 160;

module corner(x, y, z, r) translate([x, y, z]) sphere(r = r);

hull() {
    // Visor: a flattened ellipsoid gives the front its gentle dome.
    translate([0, 0, -52]) scale([1.0, 0.52, 0.22]) sphere(r = 86);
    // Front corners.
    corner( 62,  22, -40, 22);
    corner(-62,  22, -40, 22);
    corner( 62, -24, -40, 22);
    corner(-62, -24, -40, 22);
    // Back corners, narrower towards the face opening.
    corner( 55,  18,  12, 18);
    corner(-55,  18,  12, 18);
    corner( 55, -20,  12, 18);
    corner(-55, -20,  12, 18);
}
