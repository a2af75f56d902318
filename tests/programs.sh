# What programs do to a disk, step by step; run in an empty directory, on the mount and on a plain directory.
# shellcheck shell=bash
exec 2>&1
export LC_ALL=C.UTF-8 GIT_CONFIG_GLOBAL=/dev/null GIT_AUTHOR_DATE='@0 +0000' GIT_COMMITTER_DATE='@0 +0000'
mkdir -p src/sub/empty 'src/sub/Ünï 名前/deep er'
echo one >src/a && seq 90000 >src/sub/b && echo 3 >'src/sub/Ünï 名前/ñ'
cp -a src copied && ls -R copied; rsync -a src/ synced && rsync -ai --size-only src/ synced | grep '^>'; diff -r src synced
dd if=src/sub/b of=odd bs=777 seek=3 count=300 status=none
dd if=src/sub/b of=odd bs=1000 seek=7 count=9 conv=notrunc status=none
md5sum odd; truncate -s 300001 odd; md5sum odd; tail -c +299990 odd | od; truncate -s 9 odd; od -c odd; : >odd; cat odd
echo one >>log; echo two >>log; cat log; echo saved >doc; echo newer >.doc.swp; mv .doc.swp doc; cat doc; stat -c %s log doc
exec 3>open; echo a >&3; rm open; echo b >&3; exec 3>&-
while compgen -G '.fuse_hidden*' >/dev/null; do sleep 0.1; done; ls -A
sqlite3 t.db 'create table t(a); insert into t values(1),(2); delete from t where a=1; select a from t; vacuum'
cd src && git init -q && git add . && git -c user.name=T -c user.email=t@example.org commit -m one; git fsck; cd ..
chmod 600 copied/a && chown "$(id -u):$(id -g)" copied/a && touch -d 2001-01-01 copied/a && echo accepted
mkdir copied; rm none; mv none other; cat copied; cat none src/a/none; rmdir copied/a; mkdir none/m; ls -la none
mv copied/a copied/sub/b && cat copied/sub/b && mv synced 'src/sub/Ünï 名前/m' && ls -R src && rm -r 'src/sub/Ünï 名前/m/sub'
