# U-Boot's part of an update. Which slot starts is kept in the partition "env", in U-Boot's own format, which fw_setenv writes: slot; and
# of a version on trial upgrade_available=1 with bootcount, the starts that it has had. After bootlimit starts without a word that it is
# good the other slot is started. This U-Boot is built without that feature, so it is written out here.
setenv slot A; setenv bootcount 0; setenv bootlimit 3; setenv upgrade_available 0; setenv extra
part start virtio 0 env environment
virtio read 0x4f000000 ${environment} 0x20
env import -c 0x4f000000 0x4000 slot bootcount bootlimit upgrade_available extra
if test "${upgrade_available}" = 1; then
    setexpr bootcount ${bootcount} + 1
    if test ${bootcount} -gt ${bootlimit}; then
        echo "loader: slot ${slot} was never told to be good"
        if test "${slot}" = A; then setenv slot B; else setenv slot A; fi
        setenv upgrade_available 0; setenv bootcount 0
    fi
    env export -c -s 0x4000 0x4f000000 slot bootcount bootlimit upgrade_available extra
    virtio write 0x4f000000 ${environment} 0x20
fi
echo "loader: slot=${slot} start=${bootcount} trial=${upgrade_available}"
part number virtio 0 root${slot} partition
setenv bootargs console=ttyAMA0 arbor.slot=${slot} panic=3 loglevel=1 systemd.show_status=0 ${extra}
if ext4load virtio 0:${partition} 0x50000000 /boot/vmlinuz && unzip 0x50000000 ${kernel_addr_r} && ext4load virtio 0:${partition} ${ramdisk_addr_r} /boot/initrd; then
    booti ${kernel_addr_r} ${ramdisk_addr_r}:${filesize} ${fdtcontroladdr}
fi
echo "loader: slot ${slot} does not load"
reset
