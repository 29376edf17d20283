load ../helper
add=0 remove=1 matching=2
within=(bash -c 'trap "" XFSZ; (ulimit -f "$0"; exec "$@") 2>&1 | cat') # so many kilobytes

# Edits "f" of many lines after something was put in its way, in each of some ways: 'ACTION MODE [FILE [LINE]]'. Shows
# what is left, and whether it is the same file.
edit() {
  local words
  for words in "${@:2}"; do
    rm -rf /run/work /usr/local/vlq/var/lock && mkdir -p /run/work $locks && cd /run/work
    printf '%s\n' a ab 'a b' '' b >f
    chown 7:8 f
    chmod 6750 f
    eval "$1"
    stat -c %i f >/run/inode 2>/dev/null || true
    echo "# $1" >>$shown
    read -ra words <<<"$words"
    session "${limit[@]}" operate file_str "${words[@]:0:2}" "${words[2]-f}" "${words[3]-a}" b
    ! stat -c %i f 2>/dev/null | cmp -s - /run/inode || echo 'the same file' >>$shown
    tree .
    ! mountpoint -q f || umount -l f
  done
  limit=()
}

@test "an edited file keeps its owner and bits, and one that nothing is dropped from itself" {
  edit : "$add "{0..3} "$matching "{0..3} "$remove 0" "$remove 0 f none" '3 0'
  edit 'printf "x\nb" >f' "$remove 0" "$add 1"
  edit 'rm f; umask 0' "$add 1"
  umask 022
  edit 'mv f g; ln -s g f' "$remove 0" "$remove 0 f none"
  edit 'ln f g' "$remove 0 f none"
  edit ': >f' "$remove 0"
  edit 'echo copy >f.tmp' "$remove 0"
  edit 'mkfifo f.tmp' "$add 0"
  edit 'ln -s f f.tmp' "$matching 0"
  # The line stands across the end of a block that is searched at once.
  edit 'perl -e "print +(q(z) x 3000 . qq(\n)) x 21, q(y) x 2512, qq(\na\nend\n)" >f' "$remove 0"
  edit 'chown 7 .; mkdir d; mv f d; cd d' "$add 1"
}

@test "a failed step leaves the former lines and nothing else" {
  big='perl -e "print qq(b\n), (q(z) x 3000 . qq(\n)) x 9" >f'
  edit "rmdir $locks" "$add 1"
  edit "rmdir $locks; mkdir -p $locks/$(printf f | md5sum | cut -c-32)" "$add 1"
  edit 'mv f file; ln -s file/f f' "$add 1"
  ways=("$remove 0" "$matching 0" "$add 0")
  edit : "$remove 0 none/f" "$matching 0 none/f" "$add 0 none/f" "$add 1 none/f"
  edit 'rm f' "${ways[@]}"
  edit 'rm f; mkdir f' "${ways[@]}" "$add 1"
  edit 'rm f; mkdir f f.tmp' "${ways[@]}"
  edit 'mkdir f.tmp' "${ways[@]}"
  edit 'mount --bind f f' "${ways[@]}"
  limit=("${within[@]}" 0)
  edit : "${ways[@]}"
  limit=("${within[@]}" 4)
  edit "$big" "${ways[@]}"
  limit=("${within[@]}" 1)
  edit 'printf "%900d\n" 1 >f' "$add 1 f $(printf %999d 1 | tr ' ' 0)"
  limit=(setpriv --bounding-set=-chown)
  edit : "$remove 0" "$add 1" "$remove 0 f none"
  truncate -s 1073741825 f # is more than is edited
  operations "file_str "{$remove\ 0,$matching\ 0,$add\ 0,$add\ 1}" f a"
  stat -c '%s %n' * >>$shown
  rm -r /run/work
}

@test "a path that leaves no room for the copy's name" {
  for length in 4091 4092 4095; do
    edit : "$remove 0 $(perl -e 'print "/" x (shift() - 11), "run/work//f"' $length)"
  done
}

@test "a lock is named after the path text, and is not a child's" {
  operations "lock "{f,./f,"$(printf %04095d 1)","$(printf %04096d 1)"}
  rmdir $locks 2>/dev/null || rm -r $locks
  session operate lock f
}
